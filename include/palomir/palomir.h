/*
 * palomir.h: the C interface of libpalomir.
 *
 * For hosts written in C, and for every language that reaches native code
 * through C (Swift, Kotlin/JNI, C#, Python ctypes, ...). Plain C11; nothing
 * else is needed to use it. Link against libpalomir.
 *
 * ---------------------------------------------------------------------------
 * Rules that hold for every function
 *
 * Strings.  Every `const char*` argument is NUL-terminated UTF-8 and is only
 *   read during the call (the library copies what it keeps). Functions named
 *   `..._n` take a length instead and need no terminating NUL.
 *
 * Handles.  All types are opaque. A handle made by a `_create`/`_from_`/
 *   `_copy`/`_retain` function is owned by the caller, who gives it back with
 *   the matching `_release` exactly once. A handle passed to a callback is
 *   borrowed: it stays valid until the callback returns, and must be retained
 *   or copied to be kept longer. A `const char*` returned by an accessor is
 *   borrowed from the handle it came from and stays valid as long as that
 *   handle does. A `char*` returned by a `_copy_` function is owned by the
 *   caller and freed with pl_string_free.
 *   Unless a function says it takes ownership, handles passed as arguments
 *   are borrowed for the duration of the call only.
 *
 * Errors.  A function that can fail returns `bool` (true on success) and takes
 *   a last argument `PLError** error`. On failure, when `error` is not NULL,
 *   `*error` receives a new PLError that the caller releases with
 *   pl_error_release; on success `*error` is set to NULL. Passing NULL for
 *   `error` is allowed (the details are then dropped). A NULL where a value is
 *   required is never a crash: it fails with PL_ERROR_INVALID_ARGUMENT.
 *   Accessors that cannot fail return NULL, 0 or false for a NULL handle or an
 *   index out of range.
 *
 * Asynchronous operations.  pl_checkin and pl_feedback return at once. When
 *   they return true, the completion (if not NULL) is called exactly once,
 *   later, on the queue passed in: never inside the call itself, also for
 *   answers from memory and local failures. When they return false the
 *   request was refused and the completion is never called.
 *
 * Threads.  Every function may be called from any thread. Nothing throws:
 *   no C++ exception ever leaves the library.
 * ---------------------------------------------------------------------------
 */
#ifndef PALOMIR_PALOMIR_H
#define PALOMIR_PALOMIR_H
/// @file
/// The C interface of libpalomir; the rules above hold for every function.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(PALOMIR_STATIC)
#define PL_API
#elif defined(PALOMIR_BUILDING_LIBRARY)
#define PL_API __attribute__((visibility("default")))
#else
#define PL_API
#endif

/* Nothing the library exports throws; C++ callers may rely on it. */
#ifdef __cplusplus
#define PL_NOEXCEPT noexcept
#else
#define PL_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ========================================================================= */
/* Errors                                                                    */

/** What kind of failure a PLError reports. */
typedef enum PLErrorCode {
    /** A backend exchange failed (network, status, undecodable answer, ...).
        Check-in and service fetches describe it with the backend error's own
        text ("Request failed: Network error: ...", "Error response ...");
        feedback puts "Request failed: " before that text ("Request failed:
        Request failed: Network error: ...", "Request failed: Error response
        ..."). */
    PL_ERROR_REQUEST_FAILED = 1,
    /** No app credentials are set: "Missing app token and/or secret". */
    PL_ERROR_MISSING_CREDENTIALS = 2,
    /** The description of the host app could not be built: "Failed to create app info". */
    PL_ERROR_FAILED_TO_CREATE_APP_INFO = 3,
    /** A required argument was NULL, or an argument was out of its range. */
    PL_ERROR_INVALID_ARGUMENT = 4,
    /** A text that should be JSON is not, or is JSON of the wrong shape. */
    PL_ERROR_INVALID_JSON = 5,
    /** A file could not be read. */
    PL_ERROR_FILE = 6,
    /** An unexpected failure inside the library (out of memory, ...). */
    PL_ERROR_INTERNAL = 7
} PLErrorCode;

/** An error: a code and a human-readable description. Immutable. */
typedef struct PLError PLError;

/** The code; PL_ERROR_INVALID_ARGUMENT for a NULL error. */
PL_API PLErrorCode pl_error_code(const PLError* error) PL_NOEXCEPT;
/** The description (UTF-8), borrowed from `error`; "" for a NULL error. */
PL_API const char* pl_error_description(const PLError* error) PL_NOEXCEPT;
/** A new error equal to `error`, owned by the caller; NULL for NULL. Use it
    to keep an error received in a callback. */
PL_API PLError* pl_error_copy(const PLError* error) PL_NOEXCEPT;
/** Frees an owned error. NULL is ignored. */
PL_API void pl_error_release(PLError* error) PL_NOEXCEPT;

/** Frees a string returned by a `_copy_` function. NULL is ignored. */
PL_API void pl_string_free(char* string) PL_NOEXCEPT;

/* ========================================================================= */
/* Enumerations                                                              */

/** What the user did on a presented lockdown screen. */
typedef enum PLDismissAction {
    PL_DISMISS_ACTION_PERFORM_ACTION = 0,
    PL_DISMISS_ACTION_CLOSE = 1
} PLDismissAction;

/** The lockdown reading of a configuration (see pl_configuration_lockdown). */
typedef enum PLLockdownResult {
    PL_LOCKDOWN_RESULT_OPEN = 0,
    PL_LOCKDOWN_RESULT_SOFT = 1,
    PL_LOCKDOWN_RESULT_HARD = 2
} PLLockdownResult;

/** When the backend wants the host to check in again. */
typedef enum PLCheckinEvent {
    PL_CHECKIN_EVENT_LAUNCH = 0,
    PL_CHECKIN_EVENT_FOREGROUND = 1
} PLCheckinEvent;

/** The state of a backend service, from best to worst. */
typedef enum PLServiceState {
    PL_SERVICE_STATE_OK = 0,
    PL_SERVICE_STATE_WARNING = 1,
    PL_SERVICE_STATE_ERROR = 2,
    PL_SERVICE_STATE_DISABLED = 3,
    PL_SERVICE_STATE_UNKNOWN = 4
} PLServiceState;

/** @{ */
/** Integer to enumeration for bindings that carry plain integers. Return
    false, leaving `*out` untouched, when `value` names no case (or `out` is
    NULL). */
PL_API bool pl_dismiss_action_from_int(int value, PLDismissAction* out) PL_NOEXCEPT;
PL_API bool pl_lockdown_result_from_int(int value, PLLockdownResult* out) PL_NOEXCEPT;
/** @} */

/* ========================================================================= */
/* Queues                                                                    */

/** Where completions are delivered. */
typedef struct PLQueue PLQueue;

/** The main (user-interface) queue. Borrowed for the life of the process:
    never released (pl_queue_release ignores it). Its work runs only when the
    host drains it (pl_main_queue_drain, pl_main_queue_run_until) or has bound
    it to its event loop (pl_main_queue_bind). */
PL_API PLQueue* pl_queue_main(void) PL_NOEXCEPT;
/** A new serial queue with a worker thread of its own: work runs one item at
    a time in submission order. `label` may be NULL (no label). Owned by the
    caller; release with pl_queue_release. Work already submitted still runs
    after the release. NULL only when out of memory. */
PL_API PLQueue* pl_queue_create_serial(const char* label) PL_NOEXCEPT;
/** Gives back a queue from pl_queue_create_serial. NULL and the main queue
    are ignored. */
PL_API void pl_queue_release(PLQueue* queue) PL_NOEXCEPT;

/** Runs the main queue's work pending now, on the calling thread, which is
    the main thread while it does so. Returns how many items ran. */
PL_API size_t pl_main_queue_drain(void) PL_NOEXCEPT;
/** Drains the main queue repeatedly on the calling thread until `predicate`
    (called on this thread with `context`) returns true, or `timeout_ms`
    passes. A NULL predicate never becomes true. Returns whether it did. */
PL_API bool pl_main_queue_run_until(bool (*predicate)(void* context), void* context, int64_t timeout_ms) PL_NOEXCEPT;

/** One item of main-queue work handed to a bound poster. */
typedef struct PLMainWork PLMainWork;
/** Receives each main-queue item, on any thread. The host arranges for
    pl_main_work_run(work) to be called once on its UI thread, soon. */
typedef void (*PLMainQueuePoster)(PLMainWork* work, void* context);
/** Hands every pending and future main-queue item to `poster` (with
    `context`), so a host's event loop runs them. NULL unbinds: later items
    wait for pl_main_queue_drain again. */
PL_API void pl_main_queue_bind(PLMainQueuePoster poster, void* context) PL_NOEXCEPT;
/** Runs the item on the calling thread and frees it. Takes ownership: call
    it exactly once per item (or pl_main_work_discard). NULL is ignored. */
PL_API void pl_main_work_run(PLMainWork* work) PL_NOEXCEPT;
/** Frees an item without running it. NULL is ignored. */
PL_API void pl_main_work_discard(PLMainWork* work) PL_NOEXCEPT;

/* ========================================================================= */
/* Configuration                                                             */

/** A configuration document from the backend. Immutable and reference
    counted, so it may be read from any thread. */
typedef struct PLConfiguration PLConfiguration;

/** @{ */
/** Decodes a configuration from the backend's JSON form. Owned by the caller
    (pl_configuration_release). Fails with PL_ERROR_INVALID_JSON when the text
    is not JSON or not a valid configuration; the description names the
    offending member. */
PL_API PLConfiguration* pl_configuration_from_json(const char* json, PLError** error) PL_NOEXCEPT;
PL_API PLConfiguration* pl_configuration_from_json_n(const char* json, size_t length, PLError** error) PL_NOEXCEPT;
/** @} */
/** Another reference to the same configuration; the caller releases it.
    Returns `configuration` (NULL for NULL). */
PL_API PLConfiguration* pl_configuration_retain(const PLConfiguration* configuration) PL_NOEXCEPT;
/** Gives back one reference. NULL is ignored. */
PL_API void pl_configuration_release(PLConfiguration* configuration) PL_NOEXCEPT;

/** The whole configuration as JSON text (colours written as component
    objects), owned by the caller: free with pl_string_free. NULL for NULL. */
PL_API char* pl_configuration_copy_json(const PLConfiguration* configuration) PL_NOEXCEPT;

/** The configuration's version text; borrowed from the handle. NULL for NULL. */
PL_API const char* pl_configuration_version(const PLConfiguration* configuration) PL_NOEXCEPT;

/** Whether the configuration names a next check-in. When it does and
    `has_date` is not NULL, `*has_date` tells whether it names an instant, and
    `*unix_ms` (if not NULL) receives it in milliseconds since 1970 UTC
    (0 without an instant). */
PL_API bool pl_configuration_next_checkin(const PLConfiguration* configuration, bool* has_date, int64_t* unix_ms) PL_NOEXCEPT;
/** The events on which the backend wants a check-in: their count, and the
    one at `index` into `*out` (false when out of range). */
/** @{ */
PL_API size_t pl_configuration_next_checkin_event_count(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API bool pl_configuration_next_checkin_event_at(const PLConfiguration* configuration, size_t index,
                                                   PLCheckinEvent* out) PL_NOEXCEPT;
/** @} */

/** @{ */
/** Notes. Title and content are always present; subtitle and image URL may
    be NULL. */
PL_API size_t pl_configuration_note_count(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_note_title(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
PL_API const char* pl_configuration_note_subtitle(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
PL_API const char* pl_configuration_note_content(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
PL_API const char* pl_configuration_note_image(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
/** @} */

/**
 * The lockdown reading of this configuration, fixed when the handle is made:
 * OPEN when the lockdown is not active, and also when it is active but names
 * no type; SOFT when active and soft; HARD when active and hard.
 *
 * An active lockdown without a type reads OPEN here, while the lockdown flow
 * that presents the lockdown screen treats the same lockdown as soft and
 * shows it. The two readings differ on purpose: a host that blocks itself on
 * this value alone acts only on a lockdown whose strictness the backend
 * spelled out, whereas the screen flow, whose soft screen the user can close
 * anyway, errs on the side of showing the notice. Do not "fix" either one.
 */
PL_API PLLockdownResult pl_configuration_lockdown(const PLConfiguration* configuration) PL_NOEXCEPT;
/** Whether the lockdown is active (whatever its type). */
PL_API bool pl_configuration_lockdown_active(const PLConfiguration* configuration) PL_NOEXCEPT;
/** @{ */
/** The lockdown's texts; latest version is always present, the others may be NULL. */
PL_API const char* pl_configuration_lockdown_latest_version(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_lockdown_title(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_lockdown_subtitle(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_lockdown_action_url(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_lockdown_action_title(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_lockdown_dismiss_title(const PLConfiguration* configuration) PL_NOEXCEPT;
/** @} */

/** @{ */
/** The services listed in the configuration (0 when it lists none), and the
    name, identifier and state of the one at `index` (NULL or false when out
    of range). Texts are borrowed from the handle. */
PL_API size_t pl_configuration_service_count(const PLConfiguration* configuration) PL_NOEXCEPT;
PL_API const char* pl_configuration_service_name(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
PL_API const char* pl_configuration_service_identifier(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;
PL_API bool pl_configuration_service_state(const PLConfiguration* configuration, size_t index, PLServiceState* out) PL_NOEXCEPT;
/** @} */
/** The identifier of the service whose message the banner shows (the first
    message-triggering service in the worst state), or NULL when none. */
PL_API const char* pl_configuration_worst_service_identifier(const PLConfiguration* configuration) PL_NOEXCEPT;

/* ========================================================================= */
/* Attachments                                                               */

/** A file in memory to attach to feedback. Immutable. */
typedef struct PLAttachment PLAttachment;

/** An attachment with a copy of `length` bytes at `bytes` (`bytes` may be
    NULL only when `length` is 0). A NULL `content_type` derives it from the
    file name's extension ("" when unknown). Owned by the caller
    (pl_attachment_release). NULL when `filename` is NULL. */
PL_API PLAttachment* pl_attachment_create(const char* filename, const char* content_type, const void* bytes,
                                          size_t length) PL_NOEXCEPT;
/** An attachment holding the contents of the file at `path`, named after its
    last path component, its content type derived from the extension. Fails
    with PL_ERROR_FILE when the file cannot be read. Owned by the caller. */
PL_API PLAttachment* pl_attachment_create_from_file(const char* path, PLError** error) PL_NOEXCEPT;
/** Gives the attachment back. NULL is ignored. */
PL_API void pl_attachment_release(PLAttachment* attachment) PL_NOEXCEPT;

/** The file name and the content type, borrowed from the handle. */
/** @{ */
PL_API const char* pl_attachment_filename(const PLAttachment* attachment) PL_NOEXCEPT;
PL_API const char* pl_attachment_content_type(const PLAttachment* attachment) PL_NOEXCEPT;
/** @} */
/** The bytes, borrowed (NULL when there are none); `*length` (if not NULL)
    receives their count. */
PL_API const void* pl_attachment_bytes(const PLAttachment* attachment, size_t* length) PL_NOEXCEPT;

/* ========================================================================= */
/* Setting up                                                                */

/** Where Palomir keeps its files (log files). Mobile hosts must call this
    before anything else, the default ($XDG_CACHE_HOME or ~/.cache) does not
    exist there. */
PL_API bool pl_set_caches_directory(const char* path, PLError** error) PL_NOEXCEPT;

/** Points the client at another backend: `base_url` an HTTPS URL such as
    "https://localhost:8443/api" (NULL: the default backend), `ca_file` a PEM
    file of a certificate authority to trust besides the system's (NULL:
    none), `resource_dir` a directory holding "<api host>.crt", the pinned
    server certificate (NULL: the built-in resources). */
PL_API bool pl_set_backend(const char* base_url, const char* ca_file, const char* resource_dir, PLError** error) PL_NOEXCEPT;

/** Describes the host application: its identifier ("com.example.notes"),
    version ("3.4"), build ("342") and display name (NULL: none); all but the
    name are required. A host without an "Info.json" beside its executable
    (any host running in an interpreter, such as Python) calls this first,
    before anything else: without a description check-ins and feedback fail
    with PL_ERROR_FAILED_TO_CREATE_APP_INFO, and the user agent, fixed at the
    first request, would name no application. Metadata set earlier is kept. */
PL_API bool pl_set_host_info(const char* identifier, const char* version, const char* build, const char* name,
                             PLError** error) PL_NOEXCEPT;

/** Sets the app token and secret; every request is signed with them. */
PL_API bool pl_set_app_credentials(const char* token, const char* secret, PLError** error) PL_NOEXCEPT;
/** Drops the app credentials (and with them the user credentials). */
PL_API void pl_clear_app_credentials(void) PL_NOEXCEPT;

/** The host's answer to one request for the user's token. */
typedef struct PLUserTokenReply PLUserTokenReply;
/** Asked for the signed-in user's token once per request, on any thread.
    Answer through `reply`, now or later, from any thread. */
typedef void (*PLUserTokenProvider)(PLUserTokenReply* reply, void* context);
/**
 * Answers a token request with `token` (NULL or "" for no signed-in user;
 * the request then carries no user header). A token not starting with
 * "Bearer" is sent as "Bearer <token>". Takes ownership of `reply`: call
 * exactly once per reply; the handle is gone afterwards. A reply never
 * answered holds up its request and leaks the handle. NULL is ignored.
 */
PL_API void pl_user_token_reply(PLUserTokenReply* reply, const char* token) PL_NOEXCEPT;

/**
 * Sets the source of the user's token. `context` is passed to every call of
 * `provider`; `release_context` (may be NULL) is called with `context` once,
 * on any thread, when the library holds the provider no more (after it was
 * replaced or cleared and no request still needs it). A NULL `provider`
 * clears the user credentials (and `release_context` is called at once).
 * Without app credentials the provider is dropped at once: user credentials
 * exist only beside app credentials; set those first.
 */
PL_API void pl_set_user_credentials(PLUserTokenProvider provider, void* context, void (*release_context)(void* context)) PL_NOEXCEPT;

/** @{ */
/** Sets the free-form metadata sent with the app's description, from a JSON
    object (text keys, any JSON values); "null" removes it. Fails with
    PL_ERROR_INVALID_JSON for a text that is not JSON or not an object or
    null, and with PL_ERROR_FAILED_TO_CREATE_APP_INFO when there is no app
    description to attach it to. */
PL_API bool pl_set_app_info_metadata_json(const char* json, PLError** error) PL_NOEXCEPT;
PL_API bool pl_set_app_info_metadata_json_n(const char* json, size_t length, PLError** error) PL_NOEXCEPT;
/** @} */

/* ========================================================================= */
/* Operations                                                                */

/** Receives the check-in's outcome: exactly one of `configuration` and
    `error` is not NULL. Both are borrowed until the callback returns
    (pl_configuration_retain / pl_error_copy keep them). Runs on the queue
    given to pl_checkin. */
typedef void (*PLCheckinCompletion)(const PLConfiguration* configuration, const PLError* error, void* context);

/** Checks in: delivers the held configuration while its next timed check-in
    is still ahead (or it names none), else a fresh one from the backend.
    `queue` is borrowed for the call (the library keeps what it needs, the
    caller may release it at once). `completion` may be NULL: the work is done
    all the same. Fails (and never calls the completion) only for a NULL
    queue. */
PL_API bool pl_checkin(PLQueue* queue, PLCheckinCompletion completion, void* context, PLError** error) PL_NOEXCEPT;

/** Receives the feedback's outcome: `success` true, `error` NULL; or false
    with the error (borrowed until the callback returns). */
typedef void (*PLFeedbackCompletion)(bool success, const PLError* error, void* context);

/** Uploads the attachments, then submits the feedback naming them. `title`,
    `message` and `submitted_by` are required; `attachments` (may be NULL when
    `count` is 0) is an array of `count` borrowed handles, each copied during
    the call, none NULL. */
PL_API bool pl_feedback(const char* title, const char* message, const char* submitted_by,
                        const PLAttachment* const* attachments, size_t count, PLQueue* queue,
                        PLFeedbackCompletion completion, void* context, PLError** error) PL_NOEXCEPT;
/** As pl_feedback, reading the files at `paths` (`count` of them, none NULL)
    during the call; a file that cannot be read is left out silently, logging
    nothing, and the feedback still goes (use pl_attachment_create_from_file
    to learn why a file cannot be read). */
PL_API bool pl_feedback_with_files(const char* title, const char* message, const char* submitted_by,
                                   const char* const* paths, size_t count, PLQueue* queue,
                                   PLFeedbackCompletion completion, void* context, PLError** error) PL_NOEXCEPT;

/* ========================================================================= */
/* Configuration: theme, note identifiers, lockdown type and notes           */

/** A colour, each component from 0.0 to 1.0. */
typedef struct PLColor {
    double red;   /**< Red component. */
    double green; /**< Green component. */
    double blue;  /**< Blue component. */
    double alpha; /**< Opacity: 0.0 transparent, 1.0 opaque. */
} PLColor;

/** Which colour of the theme pl_configuration_theme_color reads. */
typedef enum PLThemeColor {
    PL_THEME_COLOR_TEXT = 0,
    PL_THEME_COLOR_BACKGROUND = 1,
    PL_THEME_COLOR_INNER_BACKGROUND = 2,
    PL_THEME_COLOR_ACTION_TEXT = 3,
    PL_THEME_COLOR_ACTION_BUTTON = 4
} PLThemeColor;

/// Reads one colour of the theme into `*out`. Returns false, leaving `*out`
/// untouched, when the theme has no such colour (the last three are optional)
/// or an argument is NULL or out of range.
PL_API bool pl_configuration_theme_color(const PLConfiguration* configuration, PLThemeColor which, PLColor* out) PL_NOEXCEPT;
/// The number of colours of the theme's background gradient; 0 without one.
PL_API size_t pl_configuration_theme_gradient_count(const PLConfiguration* configuration) PL_NOEXCEPT;
/// Reads the gradient colour at `index` into `*out`; false when out of range.
PL_API bool pl_configuration_theme_gradient_color_at(const PLConfiguration* configuration, size_t index, PLColor* out) PL_NOEXCEPT;
/// Reads the gradient's start and end points (unit square); false without a
/// gradient. Each pointer may be NULL.
PL_API bool pl_configuration_theme_gradient_points(const PLConfiguration* configuration, double* start_x, double* start_y,
                                                   double* end_x, double* end_y) PL_NOEXCEPT;

/// The identifier of the note at `index` as UUID text in upper-case hexadecimal; NULL when out of range.
PL_API const char* pl_configuration_note_identifier(const PLConfiguration* configuration, size_t index) PL_NOEXCEPT;

/** The strictness a lockdown names. */
typedef enum PLLockdownType {
    PL_LOCKDOWN_TYPE_HARD = 0,
    PL_LOCKDOWN_TYPE_SOFT = 1
} PLLockdownType;

/// The type the lockdown names, whether active or not, into `*out`; false
/// (leaving `*out` untouched) when it names none.
PL_API bool pl_configuration_lockdown_type(const PLConfiguration* configuration, PLLockdownType* out) PL_NOEXCEPT;
/// The lockdown's title image URL, or NULL.
PL_API const char* pl_configuration_lockdown_title_image(const PLConfiguration* configuration) PL_NOEXCEPT;

/** One text of a note, for pl_configuration_lockdown_note. */
typedef enum PLNoteField {
    PL_NOTE_IDENTIFIER = 0,
    PL_NOTE_TITLE = 1,
    PL_NOTE_SUBTITLE = 2,
    PL_NOTE_CONTENT = 3,
    PL_NOTE_IMAGE = 4
} PLNoteField;

/// The number of notes the lockdown carries (0 when it carries none).
PL_API size_t pl_configuration_lockdown_note_count(const PLConfiguration* configuration) PL_NOEXCEPT;
/// One text of the lockdown's note at `index`, borrowed from the handle;
/// NULL when out of range or absent (subtitle and image are optional).
PL_API const char* pl_configuration_lockdown_note(const PLConfiguration* configuration, size_t index, PLNoteField field) PL_NOEXCEPT;

/* ========================================================================= */
/* Services                                                                  */

/** A list of services as fetched, with the backend's max-age hint. Immutable
    and reference counted. A single-service fetch gives a list of one. */
typedef struct PLServices PLServices;

/** One text of a service, for pl_services_text. */
typedef enum PLServiceField {
    PL_SERVICE_NAME = 0,
    PL_SERVICE_IDENTIFIER = 1,
    PL_SERVICE_URL = 2,
    PL_SERVICE_IMAGE = 3,
    PL_SERVICE_MESSAGE_TITLE = 4,
    PL_SERVICE_MESSAGE_DESCRIPTION = 5,
    PL_SERVICE_MESSAGE_DISMISS = 6,
    PL_SERVICE_MESSAGE_URL = 7,
    PL_SERVICE_MESSAGE_URL_TITLE = 8
} PLServiceField;

/// Another reference to the same list; the caller releases it. NULL for NULL.
PL_API PLServices* pl_services_retain(const PLServices* services) PL_NOEXCEPT;
/// Gives back one reference. NULL is ignored.
PL_API void pl_services_release(PLServices* services) PL_NOEXCEPT;
/// The services of a configuration as a list (without a max-age hint), owned
/// by the caller; NULL for NULL. Empty when the configuration lists none.
PL_API PLServices* pl_configuration_copy_services(const PLConfiguration* configuration) PL_NOEXCEPT;
/// The max-age hint in seconds into `*seconds`; false when the backend gave none.
PL_API bool pl_services_max_age(const PLServices* services, double* seconds) PL_NOEXCEPT;
/// How many services the list holds.
PL_API size_t pl_services_count(const PLServices* services) PL_NOEXCEPT;
/// One text of the service at `index`, borrowed from the list; NULL when
/// out of range or absent (all but name and identifier are optional).
PL_API const char* pl_services_text(const PLServices* services, size_t index, PLServiceField field) PL_NOEXCEPT;
/// The state of the service at `index` into `*out`; false when out of range.
PL_API bool pl_services_state(const PLServices* services, size_t index, PLServiceState* out) PL_NOEXCEPT;
/// Whether the service at `index` is available; false when out of range.
PL_API bool pl_services_available(const PLServices* services, size_t index) PL_NOEXCEPT;
/// Whether the service at `index` triggers the message banner; false when out of range.
PL_API bool pl_services_triggers_message(const PLServices* services, size_t index) PL_NOEXCEPT;
/// Whether the service at `index` has a message.
PL_API bool pl_services_has_message(const PLServices* services, size_t index) PL_NOEXCEPT;

/** Receives a fetch's outcome: exactly one of `services` and `error` is not
    NULL, both borrowed until the callback returns. Runs on the queue given. */
typedef void (*PLServicesCompletion)(const PLServices* services, const PLError* error, void* context);

/// Fetches the host's services (`system` false) or the backend's own system
/// services (`system` true); every call asks the backend. Contract as
/// pl_checkin: fails only for a NULL queue, else the completion runs once.
PL_API bool pl_services(bool system, PLQueue* queue, PLServicesCompletion completion, void* context, PLError** error) PL_NOEXCEPT;
/// Fetches one service by `identifier` (required); the list delivered holds it alone.
PL_API bool pl_service(bool system, const char* identifier, PLQueue* queue, PLServicesCompletion completion, void* context,
                       PLError** error) PL_NOEXCEPT;

/* ========================================================================= */
/* Log files                                                                 */

/** A list of texts. Immutable; owned by the caller. */
typedef struct PLStringList PLStringList;

/// The paths of the client's log files, owned by the caller
/// (pl_string_list_release). NULL only when out of memory.
PL_API PLStringList* pl_copy_log_files(void) PL_NOEXCEPT;
/// How many texts the list holds; 0 for NULL.
PL_API size_t pl_string_list_count(const PLStringList* list) PL_NOEXCEPT;
/// The text at `index`, borrowed from the list; NULL when out of range.
PL_API const char* pl_string_list_at(const PLStringList* list, size_t index) PL_NOEXCEPT;
/// Frees the list. NULL is ignored.
PL_API void pl_string_list_release(PLStringList* list) PL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PALOMIR_PALOMIR_H */
