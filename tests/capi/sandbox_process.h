/* Runs palomir-sandbox as a child process for the C facade's tests and
   talks to its admin routes. */
#ifndef PALOMIR_TESTS_CAPI_SANDBOX_PROCESS_H
#define PALOMIR_TESTS_CAPI_SANDBOX_PROCESS_H

#include <stdbool.h>
#include <sys/types.h>

typedef struct SandboxProcess {
    pid_t pid;
    char directory[256];  /* temporary: scenario, data, bundle */
    char base_url[128];   /* https://localhost:<port>/api */
    char admin_url[128];  /* https://localhost:<port>/_sandbox */
    char ca_file[512];
    char bundle_dir[512];
} SandboxProcess;

/* Starts the sandbox serving `scenario_json`; false (with a message on
   standard error) when it does not come up. */
bool sandbox_start(SandboxProcess* sandbox, const char* program, const char* scenario_json);
void sandbox_stop(SandboxProcess* sandbox);

/* GET (body NULL) or POST (body as JSON) on an admin route such as
   "requests"; returns the answer's body (free() it) or NULL. */
char* sandbox_admin(const SandboxProcess* sandbox, const char* route, const char* body);

/* Writes `length` bytes to `directory`/`name` and puts the path into `path`. */
bool write_file(const char* directory, const char* name, const void* bytes, size_t length, char* path, size_t size);

#endif
