package io.palomir;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.Executor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Consumer;
import org.junit.jupiter.api.Test;

// The scenario's configuration stays valid for an hour, so every check-in
// after the first is answered from memory.
class LeakTest {
    private static final int CHECKINS = 10_000;

    @Test
    void everyCallbackAndExecutorIsReleasedAndTheHeapStaysFlat() throws Exception {
        Palomir palomir = Sandbox.client();
        Sandbox.await(palomir::checkin).get();
        long before = usedAfterGc();

        List<WeakReference<Object>> passed = new ArrayList<>();
        AtomicInteger calls = new AtomicInteger();
        CountDownLatch done = new CountDownLatch(CHECKINS);
        for (int i = 0; i < CHECKINS; ++i) {
            Executor executor = new Executor() { // a fresh object per call, unlike a non-capturing lambda
                @Override
                public void execute(Runnable command) {
                    command.run();
                }
            };
            Consumer<Result<Configuration>> callback = result -> {
                if (result.isSuccess()) calls.incrementAndGet();
                done.countDown();
            };
            passed.add(new WeakReference<>(executor));
            passed.add(new WeakReference<>(callback));
            palomir.checkin(executor, callback);
        }
        assertTrue(done.await(120, TimeUnit.SECONDS));
        Thread.sleep(200); // nothing more may arrive
        assertEquals(CHECKINS, calls.get());

        usedAfterGc();
        long alive = passed.stream().filter(reference -> reference.get() != null).count();
        assertEquals(0, alive, "callbacks and executors still reachable");
        passed = null; // the test's own 20,000 references and their list weigh some 800 KB
        long after = usedAfterGc();
        System.out.printf("heap after GC: %d bytes before, %d after%n", before, after);
        // Anything kept per check-in, even one reference in a list, would show as tens of kilobytes.
        assertTrue(after - before < 64 << 10, "heap grew by " + (after - before) + " bytes");
        assertEquals(1, Sandbox.occurrences(Sandbox.admin("requests"), "/api/checkin/"), "answered from memory");
    }

    private static long usedAfterGc() throws InterruptedException {
        Runtime runtime = Runtime.getRuntime();
        for (int i = 0; i < 5; ++i) {
            System.gc();
            Thread.sleep(50);
        }
        return runtime.totalMemory() - runtime.freeMemory();
    }
}
