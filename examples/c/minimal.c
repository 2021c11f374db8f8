/* A minimal C host: checks in once and prints what the backend said.

   usage: minimal BASE_URL CA_FILE BUNDLE_DIR TOKEN SECRET
   e.g. against palomir-sandbox:
     minimal https://localhost:PORT/api DATA/bundle/ca.pem DATA/bundle sandbox-token sandbox-secret */
#include <palomir/palomir.h>

#include <stdio.h>

typedef struct CheckinState {
    bool done;
    int status;
} CheckinState;

static bool finished(void* context) { return ((CheckinState*)context)->done; }

/* Runs on the main queue, that is inside pl_main_queue_run_until below. The
   configuration is borrowed: read it here, or retain it to keep it. */
static void checked_in(const PLConfiguration* configuration, const PLError* error, void* context) {
    CheckinState* state = context;
    state->done = true;
    if (error) {
        fprintf(stderr, "check-in failed: %s\n", pl_error_description(error));
        state->status = 1;
        return;
    }
    printf("version: %s\n", pl_configuration_version(configuration));
    printf("lockdown: %d\n", (int)pl_configuration_lockdown(configuration));
    for (size_t i = 0; i < pl_configuration_note_count(configuration); ++i)
        printf("note: %s\n", pl_configuration_note_title(configuration, i));
    const char* worst = pl_configuration_worst_service_identifier(configuration);
    if (worst) printf("worst service: %s\n", worst);
    state->status = 0;
}

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr, "usage: %s BASE_URL CA_FILE BUNDLE_DIR TOKEN SECRET\n", argv[0]);
        return 2;
    }
    PLError* error = NULL;
    /* Without an Info.json beside the executable the host describes itself. */
    if (!pl_set_host_info("io.palomir.examples.minimal", "1.0", "1", "minimal.c", &error) ||
        !pl_set_backend(argv[1], argv[2], argv[3], &error) || !pl_set_app_credentials(argv[4], argv[5], &error) ||
        !pl_set_app_info_metadata_json("{\"host\":\"minimal.c\"}", &error)) {
        fprintf(stderr, "setup failed: %s\n", pl_error_description(error));
        pl_error_release(error);
        return 1;
    }

    CheckinState state = {false, 1};
    if (!pl_checkin(pl_queue_main(), checked_in, &state, &error)) {
        fprintf(stderr, "check-in refused: %s\n", pl_error_description(error));
        pl_error_release(error);
        return 1;
    }
    /* A host with a UI loop would pl_main_queue_bind instead. */
    if (!pl_main_queue_run_until(finished, &state, 30000)) {
        fprintf(stderr, "no answer within 30 s\n");
        return 1;
    }
    return state.status;
}
