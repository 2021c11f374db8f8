package io.palomir;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import java.util.OptionalDouble;
import java.util.stream.Collectors;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class ServicesTest {
    // Each fetch as "identifier:STATE" per service, or the error text: every
    // operation's failure reaches Java through the one path the unknown
    // service takes here.
    @ParameterizedTest
    @CsvSource(nullValues = "none", delimiter = '|', value = {
        "services        | none | sync:ERROR mail:OK",
        "service         | mail | mail:OK",
        "systemServices  | none | api:WARNING",
        "systemService   | api  | api:WARNING",
        "service         | gone | Request failed: Bad status: 404",
    })
    void fetch(String operation, String identifier, String expected) throws Exception {
        Palomir palomir = Sandbox.client();
        Result<Fetched<List<Service>>> result = Sandbox.await((executor, done) -> {
            switch (operation) {
                case "services" -> palomir.services(executor, done);
                case "systemServices" -> palomir.systemServices(executor, done);
                case "service" -> palomir.service(identifier, executor, one -> done.accept(asList(one)));
                default -> palomir.systemService(identifier, executor, one -> done.accept(asList(one)));
            }
        });
        if (!result.isSuccess()) {
            assertEquals(PalomirException.Code.REQUEST_FAILED, result.error().code());
            assertEquals(expected, result.error().getMessage());
            return;
        }
        Fetched<List<Service>> fetched = result.get();
        assertEquals(expected, fetched.value().stream().map(s -> s.identifier() + ":" + s.state())
                                   .collect(Collectors.joining(" ")));
        assertEquals(OptionalDouble.of(60), fetched.maxAge());
    }

    private static Result<Fetched<List<Service>>> asList(Result<Fetched<Service>> one) {
        if (!one.isSuccess()) return Result.failure(one.error());
        return Result.success(new Fetched<>(List.of(one.value().value()), one.value().maxAge()));
    }
}
