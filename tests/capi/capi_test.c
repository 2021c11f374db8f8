/* The C facade driven from C: `tests_capi <case>` runs one case in a fresh
   process (the shared client lives once per process). Cases whose name
   starts with "sandbox_" take the address, CA file and bundle directory of a
   running palomir-sandbox, which run_against_sandbox.py starts for them. */
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

#define CHECK(condition)                                                              \
    do {                                                                              \
        if (!(condition)) {                                                           \
            fprintf(stderr, "%s:%d: CHECK failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                               \
        }                                                                             \
    } while (0)

#define CHECK_STR(actual, expected)                                                          \
    do {                                                                                     \
        const char* a_ = (actual);                                                           \
        const char* e_ = (expected);                                                         \
        if (!((a_ == NULL && e_ == NULL) || (a_ && e_ && strcmp(a_, e_) == 0))) {            \
            fprintf(stderr, "%s:%d: %s is \"%s\", expected \"%s\"\n", __FILE__, __LINE__, #actual, \
                    a_ ? a_ : "(NULL)", e_ ? e_ : "(NULL)");                                 \
            ++failures;                                                                      \
        }                                                                                    \
    } while (0)

/* Checks that `error` was made with `code` and `text`, and releases it. */
#define CHECK_ERROR(error, code, text)                      \
    do {                                                    \
        CHECK((error) != NULL);                             \
        CHECK(pl_error_code(error) == (code));              \
        CHECK_STR(pl_error_description(error), (text));    \
        pl_error_release(error);                            \
        (error) = NULL;                                     \
    } while (0)

/* Writes `length` bytes to `directory`/`name` and puts the path into `path`. */
static bool write_file(const char* directory, const char* name, const void* bytes, size_t length, char* path,
                       size_t size) {
    snprintf(path, size, "%s/%s", directory, name);
    FILE* file = fopen(path, "wb");
    if (!file) return false;
    bool ok = fwrite(bytes, 1, length, file) == length;
    return fclose(file) == 0 && ok;
}

/* ------------------------------------------------------------------------- */
/* Documents                                                                 */

#define THEME "\"theme\":{\"text_color\":\"#000000\",\"background_color\":\"#ffffff\"}"

static const char* full_configuration =
    "{\"version\":\"7.1\","
    "\"next_checkin\":{\"automatically_at\":\"2030-01-02T03:04:05.678Z\",\"on_event\":[\"foreground\",\"launch\"]},"
    THEME ","
    "\"notes\":[{\"identifier\":\"0e9d6c3a-4b2f-4a8e-b1d7-6f2c9e5a8b34\",\"title\":\"Offline\",\"content\":\"Works offline\","
    "\"subtitle\":\"New\",\"image\":\"https://img.example.com/a.png\"},"
    "{\"identifier\":\"1e9d6c3a-4b2f-4a8e-b1d7-6f2c9e5a8b34\",\"title\":\"Sync\",\"content\":\"Faster\"}],"
    "\"lockdown\":{\"active\":true,\"type\":\"hard\",\"latest_version\":\"9.9\",\"title\":\"Update\","
    "\"subtitle\":\"Please\",\"action_url\":\"https://store.example.com/app\",\"action_title\":\"Go\","
    "\"dismiss_title\":\"Later\"},"
    "\"services\":[{\"name\":\"Sync\",\"identifier\":\"sync\",\"is_available\":true,\"state\":\"warning\","
    "\"triggers_message\":true},"
    "{\"name\":\"Mail\",\"identifier\":\"mail\",\"is_available\":false,\"state\":\"error\",\"triggers_message\":true},"
    "{\"name\":\"Chat\",\"identifier\":\"chat\",\"is_available\":false,\"state\":\"disabled\",\"triggers_message\":false}]}";

/* ------------------------------------------------------------------------- */
/* Cases without network                                                     */

static void configuration_reading(void) {
    PLError* error = (PLError*)1; /* must be overwritten with NULL */
    PLConfiguration* configuration = pl_configuration_from_json(full_configuration, &error);
    CHECK(configuration != NULL);
    CHECK(error == NULL);
    if (!configuration) return;

    CHECK_STR(pl_configuration_version(configuration), "7.1");
    bool has_date = false;
    int64_t at = 0;
    CHECK(pl_configuration_next_checkin(configuration, &has_date, &at));
    CHECK(has_date);
    CHECK(at == 1893553445678LL);
    CHECK(pl_configuration_next_checkin_event_count(configuration) == 2);
    PLCheckinEvent event = PL_CHECKIN_EVENT_LAUNCH;
    CHECK(pl_configuration_next_checkin_event_at(configuration, 0, &event) && event == PL_CHECKIN_EVENT_FOREGROUND);
    CHECK(!pl_configuration_next_checkin_event_at(configuration, 2, &event));

    CHECK(pl_configuration_note_count(configuration) == 2);
    CHECK_STR(pl_configuration_note_title(configuration, 0), "Offline");
    CHECK_STR(pl_configuration_note_subtitle(configuration, 0), "New");
    CHECK_STR(pl_configuration_note_content(configuration, 0), "Works offline");
    CHECK_STR(pl_configuration_note_image(configuration, 0), "https://img.example.com/a.png");
    CHECK_STR(pl_configuration_note_subtitle(configuration, 1), NULL);
    CHECK_STR(pl_configuration_note_title(configuration, 2), NULL);

    CHECK(pl_configuration_lockdown(configuration) == PL_LOCKDOWN_RESULT_HARD);
    CHECK(pl_configuration_lockdown_active(configuration));
    CHECK_STR(pl_configuration_lockdown_latest_version(configuration), "9.9");
    CHECK_STR(pl_configuration_lockdown_title(configuration), "Update");
    CHECK_STR(pl_configuration_lockdown_subtitle(configuration), "Please");
    CHECK_STR(pl_configuration_lockdown_action_url(configuration), "https://store.example.com/app");
    CHECK_STR(pl_configuration_lockdown_action_title(configuration), "Go");
    CHECK_STR(pl_configuration_lockdown_dismiss_title(configuration), "Later");

    CHECK(pl_configuration_service_count(configuration) == 3);
    CHECK_STR(pl_configuration_service_name(configuration, 1), "Mail");
    CHECK_STR(pl_configuration_service_identifier(configuration, 2), "chat");
    PLServiceState state = PL_SERVICE_STATE_OK;
    CHECK(pl_configuration_service_state(configuration, 0, &state) && state == PL_SERVICE_STATE_WARNING);
    CHECK(!pl_configuration_service_state(configuration, 3, &state));
    /* "chat" is worse but triggers no message. */
    CHECK_STR(pl_configuration_worst_service_identifier(configuration), "mail");

    char* json = pl_configuration_copy_json(configuration);
    CHECK(json != NULL && strstr(json, "\"automatically_at\":\"2030-01-02T03:04:05.678Z\"") != NULL);
    pl_string_free(json);

    /* A retained handle outlives the first release. */
    PLConfiguration* kept = pl_configuration_retain(configuration);
    CHECK(kept == configuration);
    pl_configuration_release(configuration);
    CHECK_STR(pl_configuration_version(kept), "7.1");
    pl_configuration_release(kept);
}

static void configuration_lockdown_readings(void) {
    static const struct {
        const char* lockdown;
        PLLockdownResult expected;
    } cases[] = {
        {"{\"active\":false,\"type\":\"hard\",\"latest_version\":\"1.0\"}", PL_LOCKDOWN_RESULT_OPEN},
        /* Active without a type: open here, although the screen flow shows it as soft. */
        {"{\"active\":true,\"latest_version\":\"1.0\"}", PL_LOCKDOWN_RESULT_OPEN},
        {"{\"active\":true,\"type\":\"soft\",\"latest_version\":\"1.0\"}", PL_LOCKDOWN_RESULT_SOFT},
        {"{\"active\":true,\"type\":\"hard\",\"latest_version\":\"1.0\"}", PL_LOCKDOWN_RESULT_HARD},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        char json[1024];
        snprintf(json, sizeof json, "{\"version\":\"1\"," THEME ",\"notes\":[],\"lockdown\":%s}", cases[i].lockdown);
        PLConfiguration* configuration = pl_configuration_from_json(json, NULL);
        CHECK(configuration != NULL);
        if (pl_configuration_lockdown(configuration) != cases[i].expected) {
            fprintf(stderr, "lockdown %s read as %d\n", cases[i].lockdown, (int)pl_configuration_lockdown(configuration));
            ++failures;
        }
        pl_configuration_release(configuration);
    }
}

static void configuration_invalid_json(void) {
    PLError* error = NULL;
    CHECK(pl_configuration_from_json("{\"version\":\"1\"," THEME ",\"notes\":[],\"lockdown\":{\"active\":true}}",
                                     &error) == NULL);
    CHECK_ERROR(error, PL_ERROR_INVALID_JSON,
                "Invalid configuration: lockdown.latest_version: missing required key");

    /* The length form reads only the given bytes. */
    const char* padded = "{\"version\":\"1\"," THEME ",\"notes\":[],\"lockdown\":{\"active\":false,"
                         "\"latest_version\":\"1\"}}garbage";
    PLConfiguration* configuration = pl_configuration_from_json_n(padded, strlen(padded) - 7, &error);
    CHECK(configuration != NULL && error == NULL);
    pl_configuration_release(configuration);
    CHECK(pl_configuration_from_json_n(padded, strlen(padded), &error) == NULL);
    CHECK(pl_error_code(error) == PL_ERROR_INVALID_JSON);
    pl_error_release(error);
}

static void enumerations(void) {
    static const struct {
        int value;
        bool dismiss_valid;
        bool lockdown_valid;
    } cases[] = {{-1, false, false}, {0, true, true}, {1, true, true}, {2, false, true}, {3, false, false}};
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        PLDismissAction action = (PLDismissAction)77;
        PLLockdownResult result = (PLLockdownResult)77;
        bool dismiss = pl_dismiss_action_from_int(cases[i].value, &action);
        bool lockdown = pl_lockdown_result_from_int(cases[i].value, &result);
        CHECK(dismiss == cases[i].dismiss_valid);
        CHECK(lockdown == cases[i].lockdown_valid);
        CHECK(dismiss ? (int)action == cases[i].value : (int)action == 77);
        CHECK(lockdown ? (int)result == cases[i].value : (int)result == 77);
    }
    CHECK(PL_DISMISS_ACTION_PERFORM_ACTION == 0 && PL_DISMISS_ACTION_CLOSE == 1);
    CHECK(!pl_dismiss_action_from_int(0, NULL));
}

static void attachments(void) {
    PLAttachment* typed = pl_attachment_create("notes.txt", "application/x-custom", "abc", 3);
    CHECK_STR(pl_attachment_content_type(typed), "application/x-custom");
    pl_attachment_release(typed);

    char bytes[] = {'x', '\0', 'y'};
    PLAttachment* attachment = pl_attachment_create("photo.PNG", NULL, bytes, sizeof bytes);
    bytes[0] = 'z'; /* the attachment holds its own copy */
    size_t length = 0;
    const char* held = pl_attachment_bytes(attachment, &length);
    CHECK(length == 3 && held && held[0] == 'x' && held[1] == '\0' && held[2] == 'y');
    CHECK_STR(pl_attachment_filename(attachment), "photo.PNG");
    CHECK_STR(pl_attachment_content_type(attachment), "image/png");
    pl_attachment_release(attachment);

    PLAttachment* empty = pl_attachment_create("empty.txt", NULL, NULL, 0);
    CHECK(empty != NULL);
    pl_attachment_release(empty);
    CHECK(pl_attachment_create("x", NULL, NULL, 5) == NULL);

    char directory[] = "/tmp/palomir-capi-files-XXXXXX";
    CHECK(mkdtemp(directory) != NULL);
    char path[512];
    CHECK(write_file(directory, "report.json", "{\"a\":1}", 7, path, sizeof path));
    PLError* error = (PLError*)1;
    PLAttachment* from_file = pl_attachment_create_from_file(path, &error);
    CHECK(from_file != NULL && error == NULL);
    CHECK_STR(pl_attachment_filename(from_file), "report.json");
    CHECK_STR(pl_attachment_content_type(from_file), "application/json");
    held = pl_attachment_bytes(from_file, &length);
    CHECK(length == 7 && memcmp(held, "{\"a\":1}", 7) == 0);
    pl_attachment_release(from_file);
    remove(path);

    char missing[600], expected[700];
    snprintf(missing, sizeof missing, "%s/missing.txt", directory);
    CHECK(pl_attachment_create_from_file(missing, &error) == NULL);
    snprintf(expected, sizeof expected, "Cannot read file \"%s\": No such file or directory", missing);
    CHECK_ERROR(error, PL_ERROR_FILE, expected);

    CHECK(pl_attachment_create_from_file(directory, &error) == NULL);
    snprintf(expected, sizeof expected, "Cannot read file \"%s\": Is a directory", directory);
    CHECK_ERROR(error, PL_ERROR_FILE, expected);
    remove(directory);
}

static void metadata_json(void) {
    static const struct {
        const char* json;
        const char* error; /* NULL: accepted; ends in ": " when the parser's reason follows */
    } cases[] = {
        {"{\"plan\":\"pro\",\"seats\":3,\"beta\":true,\"tags\":[\"a\",null],\"nested\":{\"x\":1.5}}", NULL},
        {"null", NULL},
        {"[1,2]", "Invalid JSON: metadata must be an object or null"},
        {"{\"a\":", "Invalid JSON: "},
        {"", "Invalid JSON: "},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        PLError* error = NULL;
        bool ok = pl_set_app_info_metadata_json(cases[i].json, &error);
        CHECK(ok == (cases[i].error == NULL));
        if (!cases[i].error) {
            if (error) fprintf(stderr, "metadata %s refused: %s\n", cases[i].json, pl_error_description(error));
            CHECK(error == NULL);
        } else if (cases[i].error[strlen(cases[i].error) - 1] == ' ') {
            CHECK(pl_error_code(error) == PL_ERROR_INVALID_JSON);
            CHECK(strncmp(pl_error_description(error), cases[i].error, strlen(cases[i].error)) == 0);
        } else {
            CHECK_ERROR(error, PL_ERROR_INVALID_JSON, cases[i].error);
        }
        pl_error_release(error);
    }
    const char bytes[] = "{\"k\":1}trailing";
    CHECK(pl_set_app_info_metadata_json_n(bytes, 7, NULL));
    CHECK(!pl_set_app_info_metadata_json_n(bytes, sizeof bytes - 1, NULL));
}

/* Every entry point given NULL where a value is required reports
   PL_ERROR_INVALID_ARGUMENT naming the argument, and crashes nothing. */
static void null_arguments(void) {
    PLError* error = NULL;
    PLQueue* queue = pl_queue_main();
    const char* title = "t";

#define EXPECT_NULL_ARGUMENT(call, name)                                                   \
    do {                                                                                   \
        CHECK(!(call));                                                                    \
        CHECK_ERROR(error, PL_ERROR_INVALID_ARGUMENT, "Invalid argument: " name " is NULL"); \
    } while (0)

    EXPECT_NULL_ARGUMENT(pl_set_app_credentials(NULL, "s", &error), "token");
    EXPECT_NULL_ARGUMENT(pl_set_app_credentials("t", NULL, &error), "secret");
    EXPECT_NULL_ARGUMENT(pl_set_caches_directory(NULL, &error), "path");
    EXPECT_NULL_ARGUMENT(pl_set_host_info(NULL, "1", "1", NULL, &error), "identifier");
    EXPECT_NULL_ARGUMENT(pl_set_host_info("i", NULL, "1", NULL, &error), "version");
    EXPECT_NULL_ARGUMENT(pl_set_host_info("i", "1", NULL, NULL, &error), "build");
    EXPECT_NULL_ARGUMENT(pl_set_app_info_metadata_json(NULL, &error), "json");
    EXPECT_NULL_ARGUMENT(pl_set_app_info_metadata_json_n(NULL, 3, &error), "json");
    EXPECT_NULL_ARGUMENT(pl_configuration_from_json(NULL, &error), "json");
    EXPECT_NULL_ARGUMENT(pl_configuration_from_json_n(NULL, 2, &error), "json");
    EXPECT_NULL_ARGUMENT(pl_attachment_create_from_file(NULL, &error), "path");
    EXPECT_NULL_ARGUMENT(pl_checkin(NULL, NULL, NULL, &error), "queue");
    EXPECT_NULL_ARGUMENT(pl_feedback(NULL, "m", "s", NULL, 0, queue, NULL, NULL, &error), "title");
    EXPECT_NULL_ARGUMENT(pl_feedback(title, NULL, "s", NULL, 0, queue, NULL, NULL, &error), "message");
    EXPECT_NULL_ARGUMENT(pl_feedback(title, "m", NULL, NULL, 0, queue, NULL, NULL, &error), "submitted_by");
    EXPECT_NULL_ARGUMENT(pl_feedback(title, "m", "s", NULL, 2, queue, NULL, NULL, &error), "attachments");
    EXPECT_NULL_ARGUMENT(pl_feedback(title, "m", "s", NULL, 0, NULL, NULL, NULL, &error), "queue");
    const PLAttachment* holes[2] = {NULL, NULL};
    EXPECT_NULL_ARGUMENT(pl_feedback(title, "m", "s", holes, 2, queue, NULL, NULL, &error), "attachments[0]");
    EXPECT_NULL_ARGUMENT(pl_feedback_with_files(title, "m", "s", NULL, 1, queue, NULL, NULL, &error), "paths");
    const char* paths[2] = {"/tmp/x", NULL};
    EXPECT_NULL_ARGUMENT(pl_feedback_with_files(title, "m", "s", paths, 2, queue, NULL, NULL, &error), "paths[1]");
    EXPECT_NULL_ARGUMENT(pl_feedback_with_files(title, "m", "s", NULL, 0, NULL, NULL, NULL, &error), "queue");
#undef EXPECT_NULL_ARGUMENT

    /* Without an error out-parameter the failure is still reported by the result. */
    CHECK(!pl_checkin(NULL, NULL, NULL, NULL));

    /* Accessors and releases accept NULL. */
    CHECK(pl_configuration_version(NULL) == NULL);
    CHECK(pl_configuration_note_count(NULL) == 0);
    CHECK(pl_configuration_service_count(NULL) == 0);
    CHECK(pl_configuration_lockdown(NULL) == PL_LOCKDOWN_RESULT_OPEN);
    CHECK(!pl_configuration_next_checkin(NULL, NULL, NULL));
    CHECK(pl_configuration_copy_json(NULL) == NULL);
    CHECK(pl_configuration_retain(NULL) == NULL);
    CHECK(pl_attachment_create(NULL, NULL, "x", 1) == NULL);
    CHECK(pl_attachment_filename(NULL) == NULL);
    CHECK(pl_error_code(NULL) == PL_ERROR_INVALID_ARGUMENT);
    CHECK_STR(pl_error_description(NULL), "");
    CHECK(pl_error_copy(NULL) == NULL);
    pl_configuration_release(NULL);
    pl_attachment_release(NULL);
    pl_error_release(NULL);
    pl_string_free(NULL);
    pl_queue_release(NULL);
    pl_queue_release(pl_queue_main()); /* ignored: the main queue is borrowed */
    CHECK(pl_queue_main() == queue);
    pl_user_token_reply(NULL, "x");
    pl_main_work_run(NULL);
    pl_main_work_discard(NULL);
    CHECK(!pl_main_queue_run_until(NULL, NULL, 10));
}

/* ------------------------------------------------------------------------- */
/* Completions                                                               */

typedef struct Outcome {
    atomic_int calls;
    PLConfiguration* configuration;
    PLError* error;
    bool success;
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
    outcome->success = success;
    outcome->error = pl_error_copy(error);
    atomic_fetch_add(&outcome->calls, 1);
}

static void reset_outcome(Outcome* outcome) {
    pl_configuration_release(outcome->configuration);
    pl_error_release(outcome->error);
    memset(outcome, 0, sizeof *outcome);
}

/* Waits for the completion, running main-queue work meanwhile; then makes
   sure it is not called a second time. */
static void await(Outcome* outcome) {
    CHECK(pl_main_queue_run_until(called, outcome, 20000));
    pl_main_queue_run_until(NULL, NULL, 50);
    CHECK(atomic_load(&outcome->calls) == 1);
}

/* Checks in on the main queue and expects the error `code` with `text`, or
   a configuration when `text` is NULL. */
static void checkin_expecting(PLErrorCode code, const char* text) {
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    await(&outcome);
    if (text) {
        CHECK(outcome.configuration == NULL);
        CHECK_ERROR(outcome.error, code, text);
    } else if (outcome.error) {
        fprintf(stderr, "check-in failed: %s\n", pl_error_description(outcome.error));
        ++failures;
    }
    reset_outcome(&outcome);
}

static void checkin_succeeds(void) { checkin_expecting(PL_ERROR_INVALID_ARGUMENT, NULL); }

static const char* kMissing = "Missing app token and/or secret";

static void checkin_without_credentials(void) {
    Outcome outcome = {0};
    PLError* error = (PLError*)1;
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, &error));
    CHECK(error == NULL);
    CHECK(atomic_load(&outcome.calls) == 0); /* never inline */
    await(&outcome);
    CHECK_ERROR(outcome.error, PL_ERROR_MISSING_CREDENTIALS, kMissing);

    /* The same from a serial queue, which the caller may release at once. */
    reset_outcome(&outcome);
    PLQueue* serial = pl_queue_create_serial("capi.test");
    CHECK(pl_checkin(serial, checkin_done, &outcome, NULL));
    pl_queue_release(serial);
    await(&outcome);
    CHECK_ERROR(outcome.error, PL_ERROR_MISSING_CREDENTIALS, kMissing);

    reset_outcome(&outcome);
    CHECK(pl_feedback("t", "m", "s", NULL, 0, pl_queue_main(), feedback_done, &outcome, NULL));
    await(&outcome);
    CHECK(!outcome.success);
    CHECK_ERROR(outcome.error, PL_ERROR_MISSING_CREDENTIALS, kMissing);
    reset_outcome(&outcome);

    /* Credentials set and cleared again. */
    CHECK(pl_set_app_credentials("t", "s", NULL));
    pl_clear_app_credentials();
    checkin_expecting(PL_ERROR_MISSING_CREDENTIALS, kMissing);
}

/* A host that never describes itself (this test program has no Info.json)
   gets the app-info error wherever an app description is needed. */
static void without_host_info(void) {
    PLError* error = NULL;
    CHECK(!pl_set_app_info_metadata_json("{\"a\":1}", &error));
    CHECK_ERROR(error, PL_ERROR_FAILED_TO_CREATE_APP_INFO, "Failed to create app info");
    CHECK(pl_set_app_credentials("t", "s", NULL));
    checkin_expecting(PL_ERROR_FAILED_TO_CREATE_APP_INFO, "Failed to create app info");

    /* Described late, it works from then on, and keeps nothing stale. */
    CHECK(pl_set_host_info("io.palomir.late", "2.0", "20", NULL, &error));
    CHECK(error == NULL);
    CHECK(pl_set_app_info_metadata_json("{\"a\":1}", &error));
    CHECK(error == NULL);
}

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

static void main_queue_bound(void) {
    Posted posted = {{0}, 0};
    pl_main_queue_bind(post, &posted);
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    CHECK(pl_main_queue_run_until(posted_any, &posted, 10000));
    CHECK(atomic_load(&outcome.calls) == 0); /* posted, not yet run */
    int count = atomic_load(&posted.count);
    for (int i = 0; i < count && i < 16; ++i) pl_main_work_run(posted.items[i]);
    CHECK(atomic_load(&outcome.calls) == 1);
    CHECK(pl_error_code(outcome.error) == PL_ERROR_MISSING_CREDENTIALS);
    reset_outcome(&outcome);

    /* Unbound again: work waits for a drain. */
    pl_main_queue_bind(NULL, NULL);
    checkin_expecting(PL_ERROR_MISSING_CREDENTIALS, kMissing);
    CHECK(atomic_load(&posted.count) == count);
}

/* ------------------------------------------------------------------------- */
/* Against the sandbox (serving tests/capi/scenario.json)                    */

static const char* base_url;
static const char* ca_file;
static const char* bundle_dir;

static size_t append(char* data, size_t size, size_t count, void* context) {
    char** text = context;
    size_t length = strlen(*text), n = size * count;
    char* grown = realloc(*text, length + n + 1);
    if (!grown) return 0;
    memcpy(grown + length, data, n);
    grown[length + n] = '\0';
    *text = grown;
    return n;
}

/* GET (body NULL) or POST (body as JSON) on a sandbox admin route such as
   "requests"; returns the answer's body (free() it) or NULL. */
static char* sandbox_admin(const char* route, const char* body) {
    char url[256];
    snprintf(url, sizeof url, "%.*s/_sandbox/%s", (int)(strlen(base_url) - 4), base_url, route);
    char* text = calloc(1, 1);
    CURL* curl = curl_easy_init();
    struct curl_slist* headers = curl_slist_append(NULL, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca_file);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &text);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    if (body) {
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    }
    long status = 0;
    CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (code == CURLE_OK && status == 200) return text;
    fprintf(stderr, "admin %s: %s, status %ld\n", route, curl_easy_strerror(code), status);
    free(text);
    ++failures;
    return NULL;
}

static void connect_sandbox(const char* secret) {
    PLError* error = NULL;
    CHECK(pl_set_backend(base_url, ca_file, bundle_dir, &error));
    CHECK(error == NULL);
    CHECK(pl_set_app_credentials("sandbox-token", secret, &error));
}

/* How often `needle` occurs in `text`. */
static int occurrences(const char* text, const char* needle) {
    int count = 0;
    for (const char* at = text; at && (at = strstr(at, needle)) != NULL; at += strlen(needle)) ++count;
    return count;
}

static void sandbox_checkin(void) {
    connect_sandbox("not-the-secret");
    checkin_expecting(PL_ERROR_REQUEST_FAILED, "Request failed: Bad status: 401");

    connect_sandbox("sandbox-secret");
    CHECK(pl_set_app_info_metadata_json("{\"plan\":\"pro\",\"seats\":3}", NULL));
    Outcome outcome = {0};
    CHECK(pl_checkin(pl_queue_main(), checkin_done, &outcome, NULL));
    await(&outcome);
    PLConfiguration* configuration = outcome.configuration;
    CHECK(configuration != NULL);
    CHECK_STR(pl_configuration_version(configuration), "2024.06.1");
    CHECK_STR(pl_configuration_note_title(configuration, 0), "Hello");
    CHECK_STR(pl_configuration_worst_service_identifier(configuration), "sync");
    reset_outcome(&outcome);

    char* requests = sandbox_admin("requests", NULL);
    CHECK(occurrences(requests, "/api/checkin/sandbox-token") == 2);
    CHECK(occurrences(requests, "\\\"metadata\\\":{\\\"plan\\\":\\\"pro\\\",\\\"seats\\\":3}") == 1);
    CHECK(occurrences(requests, "\"signature\":\"invalid\"") == 1);
    CHECK(occurrences(requests, "\"signature\":\"ok\"") == 1);
    free(requests);
}

typedef struct TokenSource {
    const char* token;
    bool from_thread;
    atomic_int asked;
    atomic_int released;
} TokenSource;

typedef struct LateAnswer {
    PLUserTokenReply* reply;
    const char* token;
} LateAnswer;

static void* answer_later(void* argument) {
    LateAnswer* answer = argument;
    pl_user_token_reply(answer->reply, answer->token);
    free(answer);
    return NULL;
}

static void provide_token(PLUserTokenReply* reply, void* context) {
    TokenSource* source = context;
    atomic_fetch_add(&source->asked, 1);
    if (!source->from_thread) {
        pl_user_token_reply(reply, source->token);
        return;
    }
    LateAnswer* answer = malloc(sizeof *answer);
    answer->reply = reply;
    answer->token = source->token;
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, answer_later, answer) == 0);
    pthread_detach(thread);
}

static void release_source(void* context) { atomic_fetch_add(&((TokenSource*)context)->released, 1); }

static void sandbox_user_credentials(void) {
    connect_sandbox("sandbox-secret");

    TokenSource direct = {"abc123", false, 0, 0};
    pl_set_user_credentials(provide_token, &direct, release_source);
    checkin_succeeds();
    CHECK(atomic_load(&direct.asked) == 1);

    TokenSource threaded = {"Bearer xyz", true, 0, 0};
    pl_set_user_credentials(provide_token, &threaded, release_source);
    CHECK(atomic_load(&direct.released) == 1); /* replaced: its context is handed back */
    checkin_succeeds();
    CHECK(atomic_load(&threaded.asked) == 1);

    pl_set_user_credentials(NULL, NULL, NULL); /* clears */
    CHECK(atomic_load(&threaded.released) == 1);
    checkin_succeeds();

    char* requests = sandbox_admin("requests", NULL);
    CHECK(occurrences(requests, "/api/checkin/sandbox-token") == 3);
    CHECK(occurrences(requests, "[\"X-Authorization-User\",\"Bearer abc123\"]") == 1);
    CHECK(occurrences(requests, "[\"X-Authorization-User\",\"Bearer xyz\"]") == 1);
    CHECK(occurrences(requests, "X-Authorization-User") == 2);
    free(requests);

    /* A NULL provider hands its context back at once. */
    TokenSource unused = {"x", false, 0, 0};
    pl_set_user_credentials(NULL, &unused, release_source);
    CHECK(atomic_load(&unused.released) == 1);
}

static void sandbox_feedback(void) {
    connect_sandbox("sandbox-secret");

    PLAttachment* note = pl_attachment_create("note.txt", NULL, "hello", 5);
    PLAttachment* data = pl_attachment_create("data.bin", "application/octet-stream", "\x01\x02", 2);
    const PLAttachment* list[] = {note, data};
    Outcome outcome = {0};
    CHECK(pl_feedback("Crash", "It broke", "ann@example.com", list, 2, pl_queue_main(), feedback_done, &outcome, NULL));
    pl_attachment_release(note); /* copied during the call */
    pl_attachment_release(data);
    await(&outcome);
    CHECK(outcome.success);
    reset_outcome(&outcome);

    char directory[] = "/tmp/palomir-capi-files-XXXXXX";
    CHECK(mkdtemp(directory) != NULL);
    char path[512], missing[600];
    CHECK(write_file(directory, "log.txt", "line\n", 5, path, sizeof path));
    snprintf(missing, sizeof missing, "%s/not-there.txt", directory);
    const char* paths[] = {missing, path};
    CHECK(pl_feedback_with_files("Files", "See log", "bob", paths, 2, pl_queue_main(), feedback_done, &outcome, NULL));
    await(&outcome);
    CHECK(outcome.success);
    reset_outcome(&outcome);
    remove(path);
    remove(directory);

    char* feedback = sandbox_admin("feedback", NULL);
    CHECK(occurrences(feedback, "\"title\":\"Crash\"") == 1);
    CHECK(occurrences(feedback, "\"submitted_by\":\"ann@example.com\"") == 1);
    CHECK(occurrences(feedback, "\"filename\":\"note.txt\"") == 1);
    CHECK(occurrences(feedback, "\"content_type\":\"text/plain\"") == 2);
    CHECK(occurrences(feedback, "\"filename\":\"data.bin\"") == 1);
    CHECK(occurrences(feedback, "\"title\":\"Files\"") == 1);
    CHECK(occurrences(feedback, "\"filename\":\"log.txt\"") == 1);
    CHECK(occurrences(feedback, "not-there.txt") == 0);
    CHECK(occurrences(feedback, "\"uploaded\":true") == 3);
    free(feedback);
}

/* ------------------------------------------------------------------------- */

typedef struct Case {
    const char* name;
    void (*run)(void);
} Case;

static const Case cases[] = {
    {"configuration_reading", configuration_reading},
    {"configuration_lockdown_readings", configuration_lockdown_readings},
    {"configuration_invalid_json", configuration_invalid_json},
    {"enumerations", enumerations},
    {"attachments", attachments},
    {"metadata_json", metadata_json},
    {"null_arguments", null_arguments},
    {"checkin_without_credentials", checkin_without_credentials},
    {"without_host_info", without_host_info},
    {"main_queue_bound", main_queue_bound},
    {"sandbox_checkin", sandbox_checkin},
    {"sandbox_user_credentials", sandbox_user_credentials},
    {"sandbox_feedback", sandbox_feedback},
};

int main(int argc, char** argv) {
    if (argc < 2) {
        for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) printf("%s\n", cases[i].name);
        return 0;
    }
    if (strncmp(argv[1], "sandbox_", 8) == 0) {
        if (argc < 5) {
            fprintf(stderr, "usage: tests_capi %s BASE_URL CA_FILE BUNDLE_DIR\n", argv[1]);
            return 2;
        }
        base_url = argv[2];
        ca_file = argv[3];
        bundle_dir = argv[4];
    }
    /* Log files go beside the test, not into the user's caches; this must
       come before the client starts. */
    char caches[1024];
    if (getcwd(caches, sizeof caches - 16)) {
        strcat(caches, "/caches");
        CHECK(pl_set_caches_directory(caches, NULL));
    }
    if (strcmp(argv[1], "without_host_info") != 0)
        CHECK(pl_set_host_info("io.palomir.tests.capi", "1.2", "120", "C tests", NULL));
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        if (strcmp(cases[i].name, argv[1]) != 0) continue;
        cases[i].run();
        if (failures) fprintf(stderr, "%s: %d failure(s)\n", argv[1], failures);
        return failures ? 1 : 0;
    }
    fprintf(stderr, "unknown case %s\n", argv[1]);
    return 2;
}
