#define _POSIX_C_SOURCE 200809L
#include "sandbox_process.h"

#include <curl/curl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

bool write_file(const char* directory, const char* name, const void* bytes, size_t length, char* path, size_t size) {
    snprintf(path, size, "%s/%s", directory, name);
    FILE* file = fopen(path, "wb");
    if (!file) return false;
    bool ok = fwrite(bytes, 1, length, file) == length;
    return fclose(file) == 0 && ok;
}

static bool value_after(const char* line, const char* label, char* out, size_t size) {
    size_t n = strlen(label);
    if (strncmp(line, label, n) != 0) return false;
    const char* value = line + n;
    while (*value == ' ') ++value;
    snprintf(out, size, "%s", value);
    out[strcspn(out, "\n")] = '\0';
    return true;
}

bool sandbox_start(SandboxProcess* sandbox, const char* program, const char* scenario_json) {
    memset(sandbox, 0, sizeof *sandbox);
    snprintf(sandbox->directory, sizeof sandbox->directory, "/tmp/palomir-capi-XXXXXX");
    if (!mkdtemp(sandbox->directory)) return false;
    char scenario[512], data[512];
    if (!write_file(sandbox->directory, "scenario.json", scenario_json, strlen(scenario_json), scenario,
                    sizeof scenario))
        return false;
    snprintf(data, sizeof data, "%s/data", sandbox->directory);

    int out[2];
    if (pipe(out) != 0) return false;
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execl(program, program, "--quiet", "--scenario", scenario, "--data-dir", data, (char*)NULL);
        _exit(127);
    }
    close(out[1]);
    sandbox->pid = pid;
    FILE* lines = fdopen(out[0], "r");
    char line[1024], port[32] = "";
    while (fgets(line, sizeof line, lines)) {
        value_after(line, "  port:", port, sizeof port);
        value_after(line, "  CA:", sandbox->ca_file, sizeof sandbox->ca_file);
        if (sandbox->ca_file[0]) break;
    }
    fclose(lines);
    if (!port[0] || !sandbox->ca_file[0]) {
        fprintf(stderr, "palomir-sandbox did not start\n");
        sandbox_stop(sandbox);
        return false;
    }
    snprintf(sandbox->base_url, sizeof sandbox->base_url, "https://localhost:%s/api", port);
    snprintf(sandbox->admin_url, sizeof sandbox->admin_url, "https://localhost:%s/_sandbox", port);
    /* The CA is written into the bundle directory. */
    memcpy(sandbox->bundle_dir, sandbox->ca_file, sizeof sandbox->bundle_dir);
    char* slash = strrchr(sandbox->bundle_dir, '/');
    if (slash) *slash = '\0';
    return true;
}

void sandbox_stop(SandboxProcess* sandbox) {
    if (sandbox->pid > 0) {
        kill(sandbox->pid, SIGTERM);
        waitpid(sandbox->pid, NULL, 0);
        sandbox->pid = 0;
    }
    if (sandbox->directory[0]) {
        char command[512];
        snprintf(command, sizeof command, "rm -rf '%s'", sandbox->directory);
        if (system(command) != 0) fprintf(stderr, "could not remove %s\n", sandbox->directory);
        sandbox->directory[0] = '\0';
    }
}

typedef struct Buffer {
    char* bytes;
    size_t length;
} Buffer;

static size_t append(char* data, size_t size, size_t count, void* context) {
    Buffer* buffer = context;
    size_t n = size * count;
    char* grown = realloc(buffer->bytes, buffer->length + n + 1);
    if (!grown) return 0;
    memcpy(grown + buffer->length, data, n);
    buffer->bytes = grown;
    buffer->length += n;
    buffer->bytes[buffer->length] = '\0';
    return n;
}

char* sandbox_admin(const SandboxProcess* sandbox, const char* route, const char* body) {
    CURL* curl = curl_easy_init();
    if (!curl) return NULL;
    char url[256];
    snprintf(url, sizeof url, "%s/%s", sandbox->admin_url, route);
    Buffer buffer = {calloc(1, 1), 0};
    struct curl_slist* headers = curl_slist_append(NULL, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_CAINFO, sandbox->ca_file);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &buffer);
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
    if (code != CURLE_OK || status != 200) {
        fprintf(stderr, "admin %s: %s, status %ld\n", route, curl_easy_strerror(code), status);
        free(buffer.bytes);
        return NULL;
    }
    return buffer.bytes;
}
