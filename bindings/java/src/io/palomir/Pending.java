package io.palomir;

import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.function.LongFunction;

// One asynchronous call in flight. The native layer holds it by a global
// reference from the call until complete() returns, and drops it then, so
// the caller's executor and callback are released after their one use.
final class Pending<T> {
    private final Executor executor;
    private final Consumer<Result<T>> callback;
    private final LongFunction<T> reader;

    Pending(Executor executor, Consumer<Result<T>> callback, LongFunction<T> reader) {
        this.executor = java.util.Objects.requireNonNull(executor, "executor");
        this.callback = java.util.Objects.requireNonNull(callback, "completion");
        this.reader = reader;
    }

    // Called once from the native delivery thread; owns both handles.
    void complete(long value, long error) {
        Result<T> result;
        if (error != 0) {
            result = Result.failure(PalomirException.take(error));
        } else {
            try {
                result = Result.success(reader.apply(value));
            } catch (RuntimeException | OutOfMemoryError e) {
                // The caller still hears back exactly once.
                result = Result.failure(new PalomirException(PalomirException.Code.INTERNAL, "Internal error: " + e));
            }
        }
        Result<T> outcome = result;
        executor.execute(() -> callback.accept(outcome));
    }
}
