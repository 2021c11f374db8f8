package io.palomir;

import java.util.Objects;

/** The outcome of an asynchronous operation: a value, or the error that prevented it. */
public final class Result<T> {
    private final T value;
    private final PalomirException error;

    private Result(T value, PalomirException error) {
        this.value = value;
        this.error = error;
    }

    public static <T> Result<T> success(T value) {
        return new Result<>(value, null);
    }

    public static <T> Result<T> failure(PalomirException error) {
        return new Result<>(null, Objects.requireNonNull(error));
    }

    public boolean isSuccess() {
        return error == null;
    }

    /** The value; throws the error when the operation failed. */
    public T get() throws PalomirException {
        if (error != null) throw error;
        return value;
    }

    /** The value, or null when the operation failed. */
    public T value() {
        return value;
    }

    /** The error, or null on success. */
    public PalomirException error() {
        return error;
    }

    @Override
    public String toString() {
        return error == null ? "success(" + value + ")" : "failure(" + error.getMessage() + ")";
    }
}
