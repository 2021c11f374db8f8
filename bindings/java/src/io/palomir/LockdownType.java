package io.palomir;

/** The strictness a lockdown names. */
public enum LockdownType { HARD, SOFT }
