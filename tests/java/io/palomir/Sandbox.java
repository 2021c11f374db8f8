package io.palomir;

import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.file.Path;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.Executor;
import java.util.concurrent.TimeUnit;
import java.util.function.BiConsumer;
import java.util.function.Consumer;
import java.util.regex.Pattern;

// The palomir-sandbox that run_against_sandbox.py started for this JVM, and
// the waiting every test class needs.
final class Sandbox {
    static final String BASE_URL = System.getProperty("palomir.baseUrl");
    static final Path CA_FILE = Path.of(System.getProperty("palomir.caFile"));

    private Sandbox() {}

    /** Describes the test host and points the shared client at the sandbox. */
    static Palomir client() throws Exception {
        Palomir palomir = Palomir.shared();
        palomir.setHostInfo("io.palomir.tests.java", "1.0", "10", "Java tests");
        palomir.setBackend(BASE_URL, CA_FILE, Path.of(System.getProperty("palomir.bundleDir")));
        palomir.setAppCredentials("sandbox-token", "sandbox-secret");
        return palomir;
    }

    /** Starts an operation and waits for its one result, delivered on the executor given. */
    static <T> Result<T> await(BiConsumer<Executor, Consumer<Result<T>>> operation) throws Exception {
        CompletableFuture<Result<T>> done = new CompletableFuture<>();
        Thread[] ran = new Thread[1];
        operation.accept(command -> {
            Thread thread = new Thread(command, "test-executor");
            ran[0] = thread;
            thread.start();
        }, result -> {
            if (Thread.currentThread() != ran[0]) done.completeExceptionally(new AssertionError("not on the executor"));
            if (!done.complete(result)) throw new AssertionError("completed twice");
        });
        return done.get(20, TimeUnit.SECONDS);
    }

    // The body of an admin route such as "requests" or "feedback". The JVM
    // trusts the sandbox's CA through the trust store run_against_sandbox.py made.
    static String admin(String route) throws Exception {
        URI uri = URI.create(BASE_URL.substring(0, BASE_URL.length() - 4) + "/_sandbox/" + route);
        HttpRequest request = HttpRequest.newBuilder(uri)
            .header("X-Sandbox-Token", System.getenv().getOrDefault("PALOMIR_SANDBOX_ADMIN_TOKEN", ""))
            .build();
        return HttpClient.newHttpClient().send(request, HttpResponse.BodyHandlers.ofString()).body();
    }

    static int occurrences(String text, String needle) {
        return text.split(Pattern.quote(needle), -1).length - 1;
    }
}
