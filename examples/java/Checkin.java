// A JVM host checking in once and printing what the backend said.
//
//   java -Djava.library.path=DIR_OF_libpalomir-java.so -cp palomir.jar examples/java/Checkin.java \
//        BASE_URL CA_FILE BUNDLE_DIR TOKEN SECRET
import io.palomir.Configuration;
import io.palomir.Palomir;
import io.palomir.Result;
import java.nio.file.Path;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.Executor;
import java.util.concurrent.Executors;

public class Checkin {
    public static void main(String[] args) throws Exception {
        Palomir palomir = Palomir.shared();
        palomir.setHostInfo("com.example.notes", "3.4", "342", "Notes");
        palomir.setBackend(args[0], Path.of(args[1]), Path.of(args[2]));
        palomir.setAppCredentials(args[3], args[4]);

        // On Android, pass context.getMainExecutor() instead.
        Executor executor = Executors.newSingleThreadExecutor();
        CompletableFuture<Result<Configuration>> done = new CompletableFuture<>();
        palomir.checkin(executor, done::complete);
        Configuration configuration = done.get().get();
        System.out.println("version: " + configuration.version());
        System.out.println("lockdown: " + configuration.lockdownResult());
        System.exit(0);
    }
}
