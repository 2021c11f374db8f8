package io.palomir;

/**
 * The lockdown reading of a configuration: OPEN also for an active lockdown
 * that names no type (the lockdown screen flow shows that one as soft; a host
 * blocking itself on this value acts only on a strictness the backend spelled out).
 */
public enum LockdownResult { OPEN, SOFT, HARD }
