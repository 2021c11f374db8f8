package io.palomir;

import java.util.function.Consumer;

/**
 * The source of the signed-in user's token, asked once per request on any
 * thread. Answer through {@code reply} exactly once, now or later, from any
 * thread; null means no user is signed in. A request waits for its answer.
 */
@FunctionalInterface
public interface UserCredentials {
    void token(Consumer<String> reply);
}
