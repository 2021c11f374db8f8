// The C facade driven from C: `tests_capi <case>` runs one case in a fresh
// process (the shared client lives once per process). The "sandbox" case
// takes the address, CA file and bundle directory of a running
// palomir-sandbox, which run_against_sandbox.py starts for it.
#define _POSIX_C_SOURCE 200809L
#include <palomir/palomir.h>

#include <curl/curl.h>
#include <pthread.h>
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

static void check_text(const char* actual, const char* expected, int line) {
    if ((!actual && !expected) || (actual && expected && strcmp(actual, expected) == 0)) return;
    fprintf(stderr, "capi_test.c:%d: \"%s\", expected \"%s\"\n", line, actual ? actual : "(NULL)",
            expected ? expected : "(NULL)");
    ++failures;
}
#define CHECK_STR(actual, expected) check_text((actual), (expected), __LINE__)

// Checks that `*error` was made with `code` and `text`, and releases it.
static void check_error(PLError** error, PLErrorCode code, const char* text, int line) {
    check(*error != NULL && pl_error_code(*error) == code, "error code", line);
    check_text(pl_error_description(*error), text, line);
    pl_error_release(*error);
    *error = NULL;
}
#define CHECK_ERROR(error, code, text) check_error(&(error), (code), (text), __LINE__)

// ---------------------------------------------------------------------------
// Without network

static void configuration(void) {
    static const struct {
        const char* lockdown;
        PLLockdownResult expected;
        int type; // -1: none named
        size_t notes;
    } readings[] = {
        {"{\"active\":false,\"type\":\"hard\",\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_OPEN, PL_LOCKDOWN_TYPE_HARD, 0},
        // Active without a type: open here, although the screen flow shows it as soft.
        {"{\"active\":true,\"latest_version\":\"1\",\"notes\":[{\"identifier\":\"5A4E2B10-0000-4000-8000-00000000000F\","
         "\"title\":\"L\",\"content\":\"c\"}]}", PL_LOCKDOWN_RESULT_OPEN, -1, 1},
        {"{\"active\":true,\"type\":\"soft\",\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_SOFT, PL_LOCKDOWN_TYPE_SOFT, 0},
        {"{\"active\":true,\"type\":\"hard\",\"latest_version\":\"1\"}", PL_LOCKDOWN_RESULT_HARD, PL_LOCKDOWN_TYPE_HARD, 0},
        // Not a configuration: refused, naming the member.
        {"{\"active\":true}", (PLLockdownResult)-1, -1, 0},
    };
    for (size_t i = 0; i < sizeof readings / sizeof readings[0]; ++i) {
        char json[1024];
        snprintf(json, sizeof json,
                 "{\"version\":\"7.1\",\"next_checkin\":{\"automatically_at\":\"2030-01-02T03:04:05.678Z\","
                 "\"on_event\":[\"foreground\"]},\"theme\":{\"text_color\":\"#000000\",\"background_color\":\"#ffffff\"},"
                 "\"notes\":[{\"identifier\":\"0e9d6c3a-4b2f-4a8e-b1d7-6f2c9e5a8b34\",\"title\":\"Hi\",\"content\":\"c\"}],"
                 "\"services\":[{\"name\":\"Sync\",\"identifier\":\"sync\",\"is_available\":true,\"state\":\"warning\","
                 "\"triggers_message\":true}],\"lockdown\":%s}garbage",
                 readings[i].lockdown);
        PLError* error = (PLError*)1; // must be overwritten
        // Only the given length is read; the whole text is no document.
        CHECK(!pl_configuration_from_json(json, NULL));
        PLConfiguration* read = pl_configuration_from_json_n(json, strlen(json) - 7, &error);
        if (!read) {
            CHECK_ERROR(error, PL_ERROR_INVALID_JSON, "Invalid configuration: lockdown.latest_version: missing required key");
            continue;
        }
        check(!error && pl_configuration_lockdown(read) == readings[i].expected, readings[i].lockdown, __LINE__);
        bool has_date = false;
        int64_t at = 0;
        CHECK(pl_configuration_next_checkin(read, &has_date, &at) && has_date && at == 1893553445678LL);
        PLCheckinEvent event = PL_CHECKIN_EVENT_LAUNCH;
        CHECK(pl_configuration_next_checkin_event_at(read, 0, &event) && event == PL_CHECKIN_EVENT_FOREGROUND);
        CHECK(!pl_configuration_note_subtitle(read, 0) && !pl_configuration_note_title(read, 1));
        PLServiceState state = PL_SERVICE_STATE_OK;
        CHECK(pl_configuration_service_state(read, 0, &state) && state == PL_SERVICE_STATE_WARNING);
        CHECK(!pl_configuration_service_state(read, 1, &state));
        PLLockdownType type = (PLLockdownType)-1;
        CHECK(pl_configuration_lockdown_type(read, &type) == (readings[i].type >= 0) && (int)type == readings[i].type);
        CHECK(pl_configuration_lockdown_note_count(read) == readings[i].notes);
        CHECK_STR(pl_configuration_note_identifier(read, 0), "0E9D6C3A-4B2F-4A8E-B1D7-6F2C9E5A8B34");
        // A retained handle outlives the first release.
        PLConfiguration* kept = pl_configuration_retain(read);
        pl_configuration_release(read);
        CHECK_STR(pl_configuration_version(kept), "7.1");
        pl_configuration_release(kept);
    }
}

static void enumerations(void) {
    for (int value = -1; value <= 3; ++value) {
        PLDismissAction action = (PLDismissAction)77;
        PLLockdownResult result = (PLLockdownResult)77;
        // Dismiss actions are 0 and 1, lockdown results 0 to 2; others are no value.
        bool dismiss = value >= 0 && value <= 1, lockdown = value >= 0 && value <= 2;
        CHECK(pl_dismiss_action_from_int(value, &action) == dismiss && (int)action == (dismiss ? value : 77));
        CHECK(pl_lockdown_result_from_int(value, &result) == lockdown && (int)result == (lockdown ? value : 77));
    }
}

static void attachments(void) {
    char bytes[] = {'x', '\0', 'y'};
    PLAttachment* attachment = pl_attachment_create("photo.PNG", NULL, bytes, sizeof bytes);
    bytes[0] = 'z'; // the attachment holds its own copy
    size_t length = 0;
    const char* held = pl_attachment_bytes(attachment, &length);
    CHECK(length == 3 && held && memcmp(held, "x\0y", 3) == 0);
    CHECK_STR(pl_attachment_content_type(attachment), "image/png");
    pl_attachment_release(attachment);
    CHECK(!pl_attachment_create("x", NULL, NULL, 5));
    PLError* error = NULL;
    CHECK(!pl_attachment_create_from_file("/nonexistent-palomir/a.txt", &error));
    CHECK_ERROR(error, PL_ERROR_FILE, "Cannot read file \"/nonexistent-palomir/a.txt\": No such file or directory");
}

static void metadata_json(void) {
    PLError* error = NULL;
    CHECK(pl_set_app_info_metadata_json("null", &error) && !error);
    CHECK(!pl_set_app_info_metadata_json("[1,2]", &error));
    CHECK_ERROR(error, PL_ERROR_INVALID_JSON, "Invalid JSON: metadata must be an object or null");
    // Text that is not JSON gets the parser's reason after the lead.
    const char* broken[] = {"{\"a\":", ""};
    for (int i = 0; i < 2; ++i) {
        CHECK(!pl_set_app_info_metadata_json(broken[i], &error) && pl_error_code(error) == PL_ERROR_INVALID_JSON);
        CHECK(strncmp(pl_error_description(error), "Invalid JSON: ", 14) == 0 && strlen(pl_error_description(error)) > 14);
        pl_error_release(error);
    }
    const char bytes[] = "{\"k\":1}trailing";
    CHECK(pl_set_app_info_metadata_json_n(bytes, 7, NULL));
    CHECK(!pl_set_app_info_metadata_json_n(bytes, sizeof bytes - 1, NULL));
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
    REFUSED(pl_set_app_credentials("t", NULL, &error), "secret");
    REFUSED(pl_set_caches_directory(NULL, &error), "path");
    REFUSED(pl_set_host_info(NULL, "1", "1", NULL, &error), "identifier");
    REFUSED(pl_set_host_info("i", NULL, "1", NULL, &error), "version");
    REFUSED(pl_set_host_info("i", "1", NULL, NULL, &error), "build");
    REFUSED(pl_set_app_info_metadata_json(NULL, &error), "json");
    REFUSED(pl_set_app_info_metadata_json_n(NULL, 3, &error), "json");
    REFUSED(pl_configuration_from_json(NULL, &error) != NULL, "json");
    REFUSED(pl_configuration_from_json_n(NULL, 2, &error) != NULL, "json");
    REFUSED(pl_attachment_create_from_file(NULL, &error) != NULL, "path");
    REFUSED(pl_checkin(NULL, NULL, NULL, &error), "queue");
    REFUSED(pl_feedback(NULL, "m", "s", NULL, 0, q, NULL, NULL, &error), "title");
    REFUSED(pl_feedback("t", NULL, "s", NULL, 0, q, NULL, NULL, &error), "message");
    REFUSED(pl_feedback("t", "m", NULL, NULL, 0, q, NULL, NULL, &error), "submitted_by");
    REFUSED(pl_feedback("t", "m", "s", NULL, 2, q, NULL, NULL, &error), "attachments");
    REFUSED(pl_feedback("t", "m", "s", holes, 2, q, NULL, NULL, &error), "attachments[0]");
    REFUSED(pl_feedback("t", "m", "s", NULL, 0, NULL, NULL, NULL, &error), "queue");
    REFUSED(pl_feedback_with_files("t", "m", "s", NULL, 1, q, NULL, NULL, &error), "paths");
    REFUSED(pl_feedback_with_files("t", "m", "s", paths, 2, q, NULL, NULL, &error), "paths[1]");
    REFUSED(pl_feedback_with_files("t", "m", "s", NULL, 0, NULL, NULL, NULL, &error), "queue");
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
    if (text)
        CHECK_ERROR(outcome->error, code, text);
    else if (outcome->error)
        check_text(pl_error_description(outcome->error), "(no error)", __LINE__);
    pl_configuration_release(outcome->configuration);
    pl_error_release(outcome->error);
    memset(outcome, 0, sizeof *outcome);
}

// Checks in on the main queue, whose completion waits for the drain.
static void checkin_expecting(PLErrorCode code, const char* text) {
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL) && atomic_load(&outcome.calls) == 0);
    await(&outcome, code, text);
}

static const char* kMissing = "Missing app token and/or secret";

typedef struct Posted {
    PLMainWork* items[16];
    atomic_int count;
} Posted;

static void post(PLMainWork* work, void* context) {
    Posted* posted = context;
    int index = atomic_fetch_add(&posted->count, 1);
    if (index < 16)
        posted->items[index] = work;
    else
        pl_main_work_discard(work);
}

static bool posted_any(void* context) { return atomic_load(&((Posted*)context)->count) > 0; }

// Completions arrive on the queue named: the drained main queue, a serial
// queue the caller released at once, and a main queue bound to a host loop.
static void queues_without_credentials(void) {
    checkin_expecting(PL_ERROR_MISSING_CREDENTIALS, kMissing);
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

    Posted posted = {{0}, 0};
    pl_main_queue_bind(post, &posted);
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    CHECK(pl_main_queue_run_until(posted_any, &posted, 10000));
    CHECK(atomic_load(&outcome.calls) == 0); // posted, not yet run
    int count = atomic_load(&posted.count);
    for (int i = 0; i < count && i < 16; ++i) pl_main_work_run(posted.items[i]);
    await(&outcome, PL_ERROR_MISSING_CREDENTIALS, kMissing);
    // Unbound again: work waits for a drain.
    pl_main_queue_bind(NULL, NULL);
    checkin_expecting(PL_ERROR_MISSING_CREDENTIALS, kMissing);
    CHECK(atomic_load(&posted.count) == count);
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

// The body of a sandbox admin route such as "requests" (free() it).
static char* sandbox_admin(const char* route) {
    char url[256];
    snprintf(url, sizeof url, "%.*s/_sandbox/%s", (int)(strlen(base_url) - 4), base_url, route);
    char* text = NULL;
    size_t size = 0;
    FILE* body = open_memstream(&text, &size);
    char token[160];
    snprintf(token, sizeof token, "X-Sandbox-Token: %s", getenv("PALOMIR_SANDBOX_ADMIN_TOKEN"));
    struct curl_slist* headers = curl_slist_append(NULL, token);
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca_file);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, body);
    CHECK(curl_easy_perform(curl) == CURLE_OK);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    fclose(body);
    return text;
}

// How often `needle` occurs in `text`.
static int occurrences(const char* text, const char* needle) {
    int count = 0;
    for (const char* at = text; (at = strstr(at, needle)) != NULL; at += strlen(needle)) ++count;
    return count;
}

typedef struct TokenSource {
    const char* token; // NULL: answered from another thread
    atomic_int asked;
    atomic_int released;
} TokenSource;

static void* answer_later(void* reply) {
    pl_user_token_reply(reply, "Bearer xyz");
    return NULL;
}

static void provide_token(PLUserTokenReply* reply, void* context) {
    TokenSource* source = context;
    atomic_fetch_add(&source->asked, 1);
    pthread_t thread;
    if (source->token)
        pl_user_token_reply(reply, source->token);
    else if (pthread_create(&thread, NULL, answer_later, reply) == 0)
        pthread_detach(thread);
}

static void release_source(void* context) { atomic_fetch_add(&((TokenSource*)context)->released, 1); }

static void sandbox(void) {
    PLError* error = NULL;
    CHECK(pl_set_backend(base_url, ca_file, bundle_dir, &error) && !error);
    CHECK(pl_set_app_credentials("sandbox-token", "not-the-secret", NULL));
    checkin_expecting(PL_ERROR_REQUEST_FAILED, "Request failed: Bad status: 401");
    CHECK(pl_set_app_credentials("sandbox-token", "sandbox-secret", NULL));
    CHECK(pl_set_app_info_metadata_json("{\"plan\":\"pro\",\"seats\":[3,null],\"beta\":{\"on\":true}}", NULL));
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    CHECK(pl_main_queue_run_until(called, &outcome, 20000));
    CHECK_STR(pl_configuration_version(outcome.configuration), "2024.06.1");
    CHECK_STR(pl_configuration_worst_service_identifier(outcome.configuration), "sync");
    // The scenario's lockdown is active without a type.
    CHECK(pl_configuration_lockdown_active(outcome.configuration));
    CHECK(pl_configuration_lockdown(outcome.configuration) == PL_LOCKDOWN_RESULT_OPEN);
    await(&outcome, PL_ERROR_INVALID_ARGUMENT, NULL);

    // The user's token by callback: answered at once, then from another
    // thread, then cleared; a replaced provider's context is handed back.
    TokenSource direct = {"abc123", 0, 0}, threaded = {NULL, 0, 0}, unused = {"x", 0, 0};
    pl_set_user_credentials(provide_token, &direct, release_source);
    checkin_expecting(PL_ERROR_INVALID_ARGUMENT, NULL);
    pl_set_user_credentials(provide_token, &threaded, release_source);
    CHECK(atomic_load(&direct.asked) == 1 && atomic_load(&direct.released) == 1);
    checkin_expecting(PL_ERROR_INVALID_ARGUMENT, NULL);
    pl_set_user_credentials(NULL, &unused, release_source);
    CHECK(atomic_load(&threaded.asked) == 1 && atomic_load(&threaded.released) == 1);
    CHECK(atomic_load(&unused.released) == 1 && atomic_load(&unused.asked) == 0);
    checkin_expecting(PL_ERROR_INVALID_ARGUMENT, NULL);

    char directory[] = "/tmp/palomir-capi-files-XXXXXX", path[512], missing[600];
    CHECK(mkdtemp(directory) != NULL);
    snprintf(path, sizeof path, "%s/log.txt", directory);
    FILE* log = fopen(path, "wb");
    CHECK(log && fputs("line\n", log) >= 0 && fclose(log) == 0);
    PLAttachment* note = pl_attachment_create("note.txt", NULL, "hello", 5);
    PLAttachment* data = pl_attachment_create("data.bin", "application/octet-stream", "\x01\x02", 2);
    PLAttachment* file = pl_attachment_create_from_file(path, NULL);
    const PLAttachment* list[] = {note, data, file};
    CHECK(pl_feedback("Crash", "It broke", "ann@example.com", list, 3, pl_queue_main(), feedback_done, &outcome, NULL));
    pl_attachment_release(note); // copied during the call
    pl_attachment_release(data);
    pl_attachment_release(file);
    await(&outcome, PL_ERROR_INVALID_ARGUMENT, NULL);
    // A file that cannot be read is left out; the feedback goes on.
    snprintf(missing, sizeof missing, "%s/not-there.txt", directory);
    const char* paths[] = {missing, path};
    CHECK(pl_feedback_with_files("Files", "See log", "bob", paths, 2, pl_queue_main(), feedback_done, &outcome, NULL));
    await(&outcome, PL_ERROR_INVALID_ARGUMENT, NULL);
    remove(path);
    remove(directory);

    char* requests = sandbox_admin("requests");
    CHECK(occurrences(requests, "/api/checkin/sandbox-token") == 5);
    CHECK(occurrences(requests, "\"signature\":\"invalid\"") == 1);
    // The metadata goes with every later check-in and feedback.
    CHECK(occurrences(requests, "\\\"metadata\\\":{\\\"beta\\\":{\\\"on\\\":true},\\\"plan\\\":\\\"pro\\\",\\\"seats\\\":[3,null]}") == 6);
    CHECK(occurrences(requests, "[\"X-Authorization-User\",\"Bearer abc123\"]") == 1);
    CHECK(occurrences(requests, "X-Authorization-User") == 2);
    free(requests);
    char* feedback = sandbox_admin("feedback");
    CHECK(occurrences(feedback, "\"submitted_by\":\"ann@example.com\"") == 1);
    CHECK(occurrences(feedback, "\"filename\":\"note.txt\"") == 1 && occurrences(feedback, "\"filename\":\"data.bin\"") == 1);
    CHECK(occurrences(feedback, "\"filename\":\"log.txt\"") == 2 && occurrences(feedback, "not-there.txt") == 0);
    CHECK(occurrences(feedback, "\"content_type\":\"text/plain\"") == 3);
    CHECK(occurrences(feedback, "\"uploaded\":true") == 4);
    free(feedback);
}

// ---------------------------------------------------------------------------

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"configuration", configuration},
    {"enumerations", enumerations},
    {"attachments", attachments},
    {"metadata_json", metadata_json},
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
