/* Reports an event from C. Outside this tree: cc report-from-c.c $(pkg-config --cflags --libs quorvane-c) */

#include <quorvane/quorvane.h>

#include <inttypes.h>
#include <stdio.h>

static void show_state(void* context, int state, const char* const* backends, int code, const char* message) {
    (void)context;
    (void)code;
    if (state == QUORVANE_REPORTER_DISCONNECTED) fprintf(stderr, "waiting for the daemon: %s\n", message);
    if (state == QUORVANE_REPORTER_CONNECTED && backends == NULL) fprintf(stderr, "the daemon has no storebag\n");
}

static int start(QuorvaneReporter** reporter, char** message) {
    QuorvaneSessionInfo* session = quorvane_session_info_new();
    quorvane_session_info_set_session_id(session, 1);
    quorvane_session_info_set_client_type(session, 5);
    QuorvaneReporterOptions* options = quorvane_reporter_options_new();
    quorvane_reporter_options_set_session_info(options, session);
    quorvane_reporter_options_set_state_callback(options, show_state, NULL);
    const int code = quorvane_reporter_start(options, reporter, message);
    quorvane_reporter_options_free(options);
    quorvane_session_info_free(session);
    return code;
}

int main(void) {
    QuorvaneReporter* reporter = NULL;
    char* message = NULL;
    int code = start(&reporter, &message);
    if (code == QUORVANE_OK) {
        QuorvaneDictionary* payload = quorvane_dictionary_new();
        quorvane_dictionary_set_text(payload, "from", "C");
        quorvane_dictionary_set_real(payload, "took", 0.25);
        quorvane_reporter_report(reporter, 12, 3, payload, 0);
        quorvane_dictionary_free(payload);
        code = quorvane_reporter_flush(reporter, 10000, &message);
    }
    QuorvaneReporterStatistics statistics;
    if (quorvane_reporter_statistics(reporter, &statistics, sizeof statistics) == QUORVANE_OK)
        printf("%" PRIu64 " of %" PRIu64 " events taken\n", statistics.taken, statistics.reported);
    if (code != QUORVANE_OK) fprintf(stderr, "report-from-c: %s\n", message != NULL ? message : "no memory");
    quorvane_text_free(message);
    quorvane_reporter_free(reporter);
    return code == QUORVANE_OK ? 0 : 1;
}
