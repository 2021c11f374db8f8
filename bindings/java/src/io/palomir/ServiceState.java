package io.palomir;

/** The state of a service, from best to worst. */
public enum ServiceState { OK, WARNING, ERROR, DISABLED, UNKNOWN }
