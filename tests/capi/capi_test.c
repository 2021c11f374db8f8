// The C facade driven from C: `tests_capi <case>` runs one case in a fresh
// process (the shared client lives once per process). The "sandbox" case
// takes the address, CA file and bundle directory of a running
// palomir-sandbox, which run_against_sandbox.py starts for it. What the Java
// tests already prove through this facade against the sandbox (a check-in
// read field by field, an error's text, a user token answered from
// another thread, feedback with attachments) is not repeated here.
#define _POSIX_C_SOURCE 200809L
#include <palomir/palomir.h>

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures = 0;

static void check(bool ok, const char* what, int line) {
    if (ok) return;
    fprintf(stderr, "capi_test.c:%d: CHECK failed: %s\n", line, what);
    ++failures;
}
#define CHECK(condition) check((condition), #condition, __LINE__)

static bool same(const char* actual, const char* expected) {
    return actual && expected ? strcmp(actual, expected) == 0 : actual == expected;
}

// Checks that `*error` was made with `code` and `text` (NULL: that there is
// no error), and releases it.
static void check_error(PLError** error, PLErrorCode code, const char* text, int line) {
    if (!text) {
        check(*error == NULL, pl_error_description(*error), line);
    } else {
        check(*error != NULL && pl_error_code(*error) == code, "error code", line);
        check(same(pl_error_description(*error), text), pl_error_description(*error), line);
    }
    pl_error_release(*error);
    *error = NULL;
}
#define CHECK_ERROR(error, code, text) check_error(&(error), (code), (text), __LINE__)
#define NO_ERROR (PLErrorCode)0, NULL

// ---------------------------------------------------------------------------
// Without network

static void configuration(void) {
    static const struct {
        const char* lockdown;
        int result; // -1: refused
        int type;   // -1: none named
    } readings[] = {
        {"{\"active\":false,\"type\":\"hard\",\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_OPEN, PL_LOCKDOWN_TYPE_HARD},
        // Active without a type: open here, although the screen flow shows it as soft.
        {"{\"active\":true,\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_OPEN, -1},
        {"{\"active\":true,\"type\":\"soft\",\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_SOFT, PL_LOCKDOWN_TYPE_SOFT},
        {"{\"active\":true}", -1, -1},
    };
    for (size_t i = 0; i < sizeof readings / sizeof readings[0]; ++i) {
        char json[512];
        snprintf(json, sizeof json,
                 "{\"version\":\"7.1\",\"next_checkin\":{\"automatically_at\":\"2030-01-02T03:04:05.678Z\",\"on_event\":[]},"
                 "\"theme\":{\"text_color\":\"#000000\",\"background_color\":\"#ffffff\"},\"services\":[],"
                 "\"notes\":[{\"identifier\":\"0e9d6c3a-4b2f-4a8e-b1d7-6f2c9e5a8b34\",\"title\":\"Hi\",\"content\":\"c\"}],"
                 "\"lockdown\":%s}garbage",
                 readings[i].lockdown);
        PLError* error = (PLError*)1; // must be overwritten
        // Only the given length is read; the whole text is no document.
        CHECK(!pl_configuration_from_json(json, NULL));
        PLConfiguration* read = pl_configuration_from_json_n(json, strlen(json) - 7, &error);
        if (readings[i].result < 0) {
            CHECK_ERROR(error, PL_ERROR_INVALID_JSON, "Invalid configuration: lockdown.latest_version: missing required key");
            continue;
        }
        CHECK(error == NULL);
        check(pl_configuration_lockdown(read) == (PLLockdownResult)readings[i].result, readings[i].lockdown, __LINE__);
        PLLockdownType type = (PLLockdownType)-1;
        CHECK(pl_configuration_lockdown_type(read, &type) == (readings[i].type >= 0) && (int)type == readings[i].type);
        bool has_date = false;
        int64_t at = 0;
        CHECK(pl_configuration_next_checkin(read, &has_date, &at) && has_date && at == 1893553445678LL);
        CHECK(same(pl_configuration_note_identifier(read, 0), "0E9D6C3A-4B2F-4A8E-B1D7-6F2C9E5A8B34"));
        // Past the end is no value, not a crash.
        PLServiceState state;
        CHECK(!pl_configuration_note_title(read, 1) && !pl_configuration_service_state(read, 0, &state));
        pl_configuration_release(read);
    }
    for (int value = -1; value <= 3; ++value) {
        PLDismissAction action = (PLDismissAction)77;
        PLLockdownResult result = (PLLockdownResult)77;
        // Dismiss actions are 0 and 1, lockdown results 0 to 2; others are no value.
        bool dismiss = value >= 0 && value <= 1, lockdown = value >= 0 && value <= 2;
        CHECK(pl_dismiss_action_from_int(value, &action) == dismiss && (int)action == (dismiss ? value : 77));
        CHECK(pl_lockdown_result_from_int(value, &result) == lockdown && (int)result == (lockdown ? value : 77));
    }
}

static void attachments_and_metadata(void) {
    char bytes[] = {'x', '\0', 'y'};
    PLAttachment* attachment = pl_attachment_create("photo.PNG", NULL, bytes, sizeof bytes);
    bytes[0] = 'z'; // the attachment holds its own copy
    size_t length = 0;
    const char* held = pl_attachment_bytes(attachment, &length);
    CHECK(length == 3 && held && memcmp(held, "x\0y", 3) == 0);
    CHECK(same(pl_attachment_content_type(attachment), "image/png"));
    pl_attachment_release(attachment);
    CHECK(!pl_attachment_create("x", NULL, NULL, 5));
    PLError* error = NULL;
    CHECK(!pl_attachment_create_from_file("/nonexistent-palomir/a.txt", &error));
    CHECK_ERROR(error, PL_ERROR_FILE, "Cannot read file \"/nonexistent-palomir/a.txt\": No such file or directory");

    CHECK(pl_set_app_info_metadata_json("null", &error));
    CHECK(!pl_set_app_info_metadata_json("[1,2]", &error));
    CHECK_ERROR(error, PL_ERROR_INVALID_JSON, "Invalid JSON: metadata must be an object or null");
    const char text[] = "{\"k\":1}trailing";
    CHECK(pl_set_app_info_metadata_json_n(text, 7, NULL) && !pl_set_app_info_metadata_json_n(text, sizeof text - 1, NULL));
}

// A call given NULL where a value is required fails with
// PL_ERROR_INVALID_ARGUMENT naming the argument.
static void refused(bool succeeded, PLError** error, const char* argument, int line) {
    char expected[64];
    snprintf(expected, sizeof expected, "Invalid argument: %s is NULL", argument);
    check(!succeeded, argument, line);
    check_error(error, PL_ERROR_INVALID_ARGUMENT, expected, line);
}
#define REFUSED(call, argument) refused((call), &error, (argument), __LINE__)

static void null_arguments(void) {
    PLError* error = NULL;
    PLQueue* q = pl_queue_main();
    const PLAttachment* holes[2] = {NULL, NULL};
    const char* paths[2] = {"/tmp/x", NULL};
    REFUSED(pl_set_app_credentials(NULL, "s", &error), "token");
    REFUSED(pl_set_caches_directory(NULL, &error), "path");
    REFUSED(pl_set_host_info("i", "1", NULL, NULL, &error), "build");
    REFUSED(pl_set_app_info_metadata_json_n(NULL, 3, &error), "json");
    REFUSED(pl_checkin(NULL, NULL, NULL, &error), "queue");
    REFUSED(pl_feedback(NULL, "m", "s", NULL, 0, q, NULL, NULL, &error), "title");
    REFUSED(pl_feedback("t", "m", "s", NULL, 2, q, NULL, NULL, &error), "attachments");
    REFUSED(pl_feedback("t", "m", "s", holes, 2, q, NULL, NULL, &error), "attachments[0]");
    REFUSED(pl_feedback_with_files("t", "m", "s", paths, 2, q, NULL, NULL, &error), "paths[1]");
    // Without an error out-parameter the failure is still reported by the result.
    CHECK(!pl_checkin(NULL, NULL, NULL, NULL));

    // Accessors and releases take NULL; the main queue is borrowed, never released.
    CHECK(!pl_configuration_version(NULL) && pl_configuration_lockdown(NULL) == PL_LOCKDOWN_RESULT_OPEN);
    CHECK(!pl_attachment_create(NULL, NULL, "x", 1) && pl_error_code(NULL) == PL_ERROR_INVALID_ARGUMENT);
    pl_configuration_release(NULL);
    pl_queue_release(q);
    pl_user_token_reply(NULL, "x");
    CHECK(pl_queue_main() == q && !pl_main_queue_run_until(NULL, NULL, 10));
}

// ---------------------------------------------------------------------------
// Completions

typedef struct Outcome {
    atomic_int calls;
    PLConfiguration* configuration;
    PLError* error;
} Outcome;

static bool called(void* context) { return atomic_load(&((Outcome*)context)->calls) > 0; }

static void checkin_done(const PLConfiguration* configuration, const PLError* error, void* context) {
    Outcome* outcome = context;
    CHECK((configuration == NULL) != (error == NULL));
    outcome->configuration = pl_configuration_retain(configuration);
    outcome->error = pl_error_copy(error);
    atomic_fetch_add(&outcome->calls, 1);
}

static void feedback_done(bool success, const PLError* error, void* context) {
    Outcome* outcome = context;
    CHECK(success == (error == NULL));
    outcome->error = pl_error_copy(error);
    atomic_fetch_add(&outcome->calls, 1);
}

// Waits for the one completion, running main-queue work meanwhile, and
// checks its error (`text` NULL: none); then makes sure it is not called a
// second time, and clears the outcome.
static void await(Outcome* outcome, PLErrorCode code, const char* text) {
    CHECK(pl_main_queue_run_until(called, outcome, 20000));
    pl_main_queue_run_until(NULL, NULL, 50);
    CHECK(atomic_load(&outcome->calls) == 1);
    check_error(&outcome->error, code, text, __LINE__);
    pl_configuration_release(outcome->configuration);
    memset(outcome, 0, sizeof *outcome);
}

// Checks in on the main queue, whose completion waits for the drain.
static void checkin_expecting(PLErrorCode code, const char* text) {
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL) && atomic_load(&outcome.calls) == 0);
    await(&outcome, code, text);
}

static const char* kMissing = "Missing app token and/or secret";

static _Atomic(PLMainWork*) posted;
static atomic_int posts;

// A host loop's poster, which keeps the work until the test runs it.
static void post(PLMainWork* work, void* context) {
    (void)context;
    atomic_fetch_add(&posts, 1);
    PLMainWork* earlier = atomic_exchange(&posted, work);
    if (earlier) pl_main_work_discard(earlier);
}

static bool posted_any(void* context) {
    (void)context;
    return atomic_load(&posted) != NULL;
}

// Completions arrive on the queue named: the drained main queue, a serial
// queue the caller released at once, and a main queue bound to a host loop.
static void queues_without_credentials(void) {
    Outcome outcome = {0};
    PLQueue* serial = pl_queue_create_serial("capi.test");
    CHECK(pl_checkin(serial, checkin_done, &outcome, NULL));
    pl_queue_release(serial);
    await(&outcome, PL_ERROR_MISSING_CREDENTIALS, kMissing);
    CHECK(pl_feedback("t", "m", "s", NULL, 0, pl_queue_main(), feedback_done, &outcome, NULL));
    await(&outcome, PL_ERROR_MISSING_CREDENTIALS, kMissing);
    CHECK(pl_set_app_credentials("t", "s", NULL));
    pl_clear_app_credentials();
    checkin_expecting(PL_ERROR_MISSING_CREDENTIALS, kMissing);

    pl_main_queue_bind(post, NULL);
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    CHECK(pl_main_queue_run_until(posted_any, NULL, 10000));
    CHECK(atomic_load(&outcome.calls) == 0); // posted, not yet run
    pl_main_work_run(atomic_exchange(&posted, NULL));
    await(&outcome, PL_ERROR_MISSING_CREDENTIALS, kMissing);
    CHECK(atomic_load(&posts) == 1);
    pl_main_queue_bind(NULL, NULL);
}

// A host that never describes itself (this test program has no Info.json)
// gets the app-info error wherever an app description is needed, until it
// describes itself late.
static void without_host_info(void) {
    PLError* error = NULL;
    CHECK(!pl_set_app_info_metadata_json("{\"a\":1}", &error));
    CHECK_ERROR(error, PL_ERROR_FAILED_TO_CREATE_APP_INFO, "Failed to create app info");
    CHECK(pl_set_app_credentials("t", "s", NULL));
    checkin_expecting(PL_ERROR_FAILED_TO_CREATE_APP_INFO, "Failed to create app info");
    CHECK(pl_set_host_info("io.palomir.late", "2.0", "20", NULL, &error) && !error);
    CHECK(pl_set_app_info_metadata_json("{\"a\":1}", &error) && !error);
}

// ---------------------------------------------------------------------------
// Against the sandbox (serving tests/capi/scenario.json)

static const char* base_url;
static const char* ca_file;
static const char* bundle_dir;

// The feedback the sandbox took, as it keeps it in its data directory (the
// runner's, beside the bundle directory) with the app info it came with,
// read without its layout's whitespace.
static char* stored_feedback(void) {
    char path[600], *text = calloc(1, 1 << 16);
    snprintf(path, sizeof path, "%s/../feedback/1/feedback.json", bundle_dir);
    FILE* file = fopen(path, "rb");
    CHECK(file != NULL);
    size_t length = 0;
    for (int c; file && (c = fgetc(file)) != EOF && length < (1 << 16) - 1;)
        if (c != ' ' && c != '\n') text[length++] = (char)c;
    if (file) fclose(file);
    return text;
}

static atomic_int released;

static void provide_token(PLUserTokenReply* reply, void* context) { pl_user_token_reply(reply, context); }

static void release_token(void* context) {
    (void)context;
    atomic_fetch_add(&released, 1);
}

static void sandbox(void) {
    PLError* error = NULL;
    CHECK(pl_set_backend(base_url, ca_file, bundle_dir, &error) && !error);
    CHECK(pl_set_app_credentials("sandbox-token", "sandbox-secret", NULL));
    CHECK(pl_set_app_info_metadata_json("{\"plan\":\"pro\",\"seats\":[3,null],\"beta\":{\"on\":true}}", NULL));
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    CHECK(pl_main_queue_run_until(called, &outcome, 20000));
    CHECK(same(pl_configuration_version(outcome.configuration), "2024.06.1"));
    CHECK(same(pl_configuration_worst_service_identifier(outcome.configuration), "sync"));
    await(&outcome, NO_ERROR);

    // The user's token by callback, then cleared: the dropped provider's
    // context is handed back, and so is the one given with no provider.
    pl_set_user_credentials(provide_token, "Bearer abc123", release_token);
    checkin_expecting(NO_ERROR);
    pl_set_user_credentials(NULL, "unused", release_token);
    CHECK(atomic_load(&released) == 2);
    checkin_expecting(NO_ERROR);

    // A file that cannot be read is left out; the feedback goes on. The
    // dashboard's browser test runs this case too: it shows the title as
    // text, and the file's bytes download as they were, so it was uploaded.
    char path[600], missing[600];
    snprintf(path, sizeof path, "%s/../log.txt", bundle_dir);
    snprintf(missing, sizeof missing, "%s/../not-there.txt", bundle_dir);
    FILE* log = fopen(path, "wb");
    CHECK(log && fwrite("line\0\n", 1, 6, log) == 6 && fclose(log) == 0);
    const char* paths[] = {missing, path};
    CHECK(pl_feedback_with_files("<img src=x onerror=alert(1)>", "See log", "bob", paths, 2, pl_queue_main(),
                                 feedback_done, &outcome, NULL));
    await(&outcome, NO_ERROR);

    // The metadata set through the facade went out with it; the file that
    // could not be read was left out.
    char* feedback = stored_feedback();
    CHECK(strstr(feedback, "\"metadata\":{\"beta\":{\"on\":true},\"plan\":\"pro\",\"seats\":[3,null]}"));
    CHECK(strstr(feedback, "\"filename\":\"log.txt\"") && !strstr(feedback, "not-there"));
    free(feedback);
}

// ---------------------------------------------------------------------------

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"configuration", configuration},
    {"attachments_and_metadata", attachments_and_metadata},
    {"null_arguments", null_arguments},
    {"queues_without_credentials", queues_without_credentials},
    {"without_host_info", without_host_info},
    {"sandbox", sandbox},
};

int main(int argc, char** argv) {
    if (argc >= 5) {
        base_url = argv[2];
        ca_file = argv[3];
        bundle_dir = argv[4];
    }
    // Log files go beside the test, not into the user's caches; this must
    // come before the client starts.
    char caches[1024];
    CHECK(getcwd(caches, sizeof caches - 16) && pl_set_caches_directory(strcat(caches, "/caches"), NULL));
    for (size_t i = 0; argc > 1 && i < sizeof cases / sizeof cases[0]; ++i) {
        if (strcmp(cases[i].name, argv[1]) != 0) continue;
        if (strcmp(argv[1], "without_host_info") != 0)
            CHECK(pl_set_host_info("io.palomir.tests.capi", "1.2", "120", "C tests", NULL));
        cases[i].run();
        if (failures) fprintf(stderr, "%s: %d failure(s)\n", argv[1], failures);
        return failures ? 1 : 0;
    }
    fprintf(stderr, "usage: tests_capi CASE [BASE_URL CA_FILE BUNDLE_DIR]\n");
    return 2;
}
