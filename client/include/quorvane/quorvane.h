/* libquorvane in C: reports events to the quorvaned daemon. The same library as quorvane/Reporter.h and
   quorvane/Client.h, behind functions and types that stay: what is here is never changed or removed, only
   added to, and its symbols bear the version QUORVANE_C_1. Usable from C11, from C++ and from whatever calls
   C.

       QuorvaneSessionInfo* session = quorvane_session_info_new();
       quorvane_session_info_set_session_id(session, 1);
       quorvane_session_info_set_client_type(session, 5);
       QuorvaneReporterOptions* options = quorvane_reporter_options_new();
       quorvane_reporter_options_set_session_info(options, session);

       QuorvaneReporter* reporter;
       char* message;
       if (quorvane_reporter_start(options, &reporter, &message) != QUORVANE_OK) return complain(message);

       QuorvaneDictionary* payload = quorvane_dictionary_new();
       quorvane_dictionary_set_real(payload, "took", 0.25);
       quorvane_reporter_report(reporter, 12, 3, payload, 0);

   Errors. A function that can fail returns a QuorvaneCode as an int: QUORVANE_OK, or what went wrong. Those
   that talk to the daemon also tell it in words, for people, in English, in one line: the last parameter,
   where it is not NULL, is set to such a text, or to NULL where all went well or there is no memory for it.
   What a function hands out is set to NULL, 0 or false where it fails. Functions named _new return NULL for
   want of memory. Nothing is thrown, and no function ends the program.

   Ownership. What is handed out is the caller's, to be given back once to the function named _free (or, for
   texts and names, quorvane_text_free and quorvane_names_free); each takes NULL. What is passed in is copied,
   and stays the caller's. Where it says so, NULL stands for "none" or for "not wanted". Any other NULL is
   QUORVANE_INVALID_ARGUMENT, or ignored by functions that return nothing.

   Texts are UTF-8 and end with a NUL. One that is not UTF-8 is found when it is sent.

   Threads. Dictionaries, arrays, infos and options are for one thread at a time, unless all only read.
   Reporters and clients are for any number; only their _free may not run beside other operations on them.
   After fork(2) the child must not use or free those of its parent. Callbacks run on threads of the library's
   and must not throw; the texts that they get are theirs until they return. */
#ifndef QUORVANE_QUORVANE_H
#define QUORVANE_QUORVANE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

enum QuorvaneCode {
    QUORVANE_OK = 0,
    /* The daemon cannot be reached, or the connection has ended: connect anew. */
    QUORVANE_DISCONNECTED = 1,
    /* The daemon's answer did not come in time. What was asked for may still happen. */
    QUORVANE_TIMED_OUT = 2,
    /* NULL where something has to be; or what cannot be sent: a value nested deeper than 21 dictionaries or
       30 arrays, a text that is not UTF-8, a path that is not of a regular file. */
    QUORVANE_INVALID_ARGUMENT = 3,
    /* The daemon answered with an error. */
    QUORVANE_REFUSED = 4,
    /* The call would wait for itself. */
    QUORVANE_WOULD_DEADLOCK = 5,
    /* The system refused: no file, no descriptor, no thread. */
    QUORVANE_SYSTEM = 6,
    /* Nothing was done, since it would have to wait for the daemon to keep up. */
    QUORVANE_WOULD_BLOCK = 7,
    QUORVANE_NO_MEMORY = 8
};

/* Flags of an event; they can be joined with |. */
#define QUORVANE_FLAG_SEND_NOW UINT32_C(1) /* Unbatched, to the real-time URL. */
#define QUORVANE_FLAG_PROMOTE UINT32_C(2)  /* A sampled-out session reports from here on. */

/* Time-outs are in milliseconds, from 0 to a hundred years, or one of these. */
#define QUORVANE_DEFAULT_TIMEOUT INT64_C(-1) /* As long as is sensible for the call; it says how long. */
#define QUORVANE_NO_TIMEOUT INT64_C(-2)      /* For ever. */

/* The library's version, as "7.0.0". Not to be freed. */
const char* quorvane_version(void);

void quorvane_text_free(char* text);
/* Names are an array that ends with NULL. */
void quorvane_names_free(char** names);

/* Values. A dictionary maps texts to values; an array holds values in their order. A value is a text, a
   boolean, a signed, unsigned or real number, a date, data, an array or a dictionary. There is no nil: what
   is absent is left out, and a payload that is absent is NULL.

   A date is in microseconds since 1970. Events that go to an HTTPS server lose arrays, dictionaries and data;
   a number that is not finite costs the whole event. */

typedef struct QuorvaneDictionary QuorvaneDictionary;
typedef struct QuorvaneArray QuorvaneArray;

QuorvaneDictionary* quorvane_dictionary_new(void);
void quorvane_dictionary_free(QuorvaneDictionary* dictionary);
size_t quorvane_dictionary_count(const QuorvaneDictionary* dictionary);
void quorvane_dictionary_clear(QuorvaneDictionary* dictionary);
int quorvane_dictionary_remove(QuorvaneDictionary* dictionary, const char* key);
/* Each stores the value in place of an earlier one under the key. */
int quorvane_dictionary_set_text(QuorvaneDictionary* dictionary, const char* key, const char* text);
int quorvane_dictionary_set_boolean(QuorvaneDictionary* dictionary, const char* key, bool flag);
int quorvane_dictionary_set_signed(QuorvaneDictionary* dictionary, const char* key, int64_t number);
int quorvane_dictionary_set_unsigned(QuorvaneDictionary* dictionary, const char* key, uint64_t number);
int quorvane_dictionary_set_real(QuorvaneDictionary* dictionary, const char* key, double number);
int quorvane_dictionary_set_date(QuorvaneDictionary* dictionary, const char* key, int64_t microseconds);
/* The bytes may be NULL when there are none. */
int quorvane_dictionary_set_data(QuorvaneDictionary* dictionary, const char* key, const void* bytes,
                                 size_t size);
int quorvane_dictionary_set_array(QuorvaneDictionary* dictionary, const char* key,
                                  const QuorvaneArray* array);
int quorvane_dictionary_set_dictionary(QuorvaneDictionary* dictionary, const char* key,
                                       const QuorvaneDictionary* value);
/* The dictionary on one line, as {key = value;}. */
int quorvane_dictionary_describe(const QuorvaneDictionary* dictionary, char** text);

QuorvaneArray* quorvane_array_new(void);
void quorvane_array_free(QuorvaneArray* array);
size_t quorvane_array_count(const QuorvaneArray* array);
int quorvane_array_add_text(QuorvaneArray* array, const char* text);
int quorvane_array_add_boolean(QuorvaneArray* array, bool flag);
int quorvane_array_add_signed(QuorvaneArray* array, int64_t number);
int quorvane_array_add_unsigned(QuorvaneArray* array, uint64_t number);
int quorvane_array_add_real(QuorvaneArray* array, double number);
int quorvane_array_add_date(QuorvaneArray* array, int64_t microseconds);
int quorvane_array_add_data(QuorvaneArray* array, const void* bytes, size_t size);
int quorvane_array_add_array(QuorvaneArray* array, const QuorvaneArray* value);
int quorvane_array_add_dictionary(QuorvaneArray* array, const QuorvaneDictionary* value);

/* Reading. A value belongs to its dictionary or array, as do the texts and bytes in it: they are there until
   it changes or is freed. NULL where there is no such value; a NULL value reads as what its function gives
   for other types. */

typedef struct QuorvaneValue QuorvaneValue;

enum QuorvaneKind {
    QUORVANE_KIND_TEXT = 0,
    QUORVANE_KIND_BOOLEAN = 1,
    QUORVANE_KIND_SIGNED = 2,
    QUORVANE_KIND_UNSIGNED = 3,
    QUORVANE_KIND_REAL = 4,
    QUORVANE_KIND_DATE = 5,
    QUORVANE_KIND_DATA = 6,
    QUORVANE_KIND_ARRAY = 7,
    QUORVANE_KIND_DICTIONARY = 8
};

const QuorvaneValue* quorvane_dictionary_find(const QuorvaneDictionary* dictionary, const char* key);
/* Entries are in the order of their keys' bytes. The key may be NULL. */
const QuorvaneValue* quorvane_dictionary_at(const QuorvaneDictionary* dictionary, size_t index,
                                            const char** key);
const QuorvaneValue* quorvane_array_at(const QuorvaneArray* array, size_t index);

/* A QuorvaneKind; -1 for NULL. */
int quorvane_value_kind(const QuorvaneValue* value);
/* NULL for other types. */
const char* quorvane_value_text(const QuorvaneValue* value);
/* Booleans and all numbers, as one of them; 0 for other types. A real number is cut to the range of signed
   ones, a signed and an unsigned one wrap. */
bool quorvane_value_boolean(const QuorvaneValue* value);
int64_t quorvane_value_signed(const QuorvaneValue* value);
uint64_t quorvane_value_unsigned(const QuorvaneValue* value);
double quorvane_value_real(const QuorvaneValue* value);
/* 0 for other types. */
int64_t quorvane_value_date(const QuorvaneValue* value);
/* NULL and 0 for other types. */
const void* quorvane_value_data(const QuorvaneValue* value, size_t* size);
/* Elements of an array, entries of a dictionary; 0 for other types. */
size_t quorvane_value_count(const QuorvaneValue* value);
const QuorvaneValue* quorvane_value_at(const QuorvaneValue* value, size_t index);
/* NULL for all but dictionaries. */
const char* quorvane_value_key_at(const QuorvaneValue* value, size_t index);

/* Who reports. The daemon chooses the session's backends by the client type (5 to 11 have some). A new info
   has neither session ID nor client type, version 0, and is not true in anything. */

typedef struct QuorvaneSessionInfo QuorvaneSessionInfo;

QuorvaneSessionInfo* quorvane_session_info_new(void);
void quorvane_session_info_free(QuorvaneSessionInfo* info);
void quorvane_session_info_set_session_id(QuorvaneSessionInfo* info, uint32_t session_id);
void quorvane_session_info_set_client_type(QuorvaneSessionInfo* info, uint32_t client_type);
void quorvane_session_info_set_client_version(QuorvaneSessionInfo* info, uint32_t client_version);
/* Events are collected and posted together. */
void quorvane_session_info_set_batch_event(QuorvaneSessionInfo* info, bool batch_event);
/* Events are held until user info comes. */
void quorvane_session_info_set_require_user_info(QuorvaneSessionInfo* info, bool require_user_info);
/* A framework whose version the daemon is to look up for the session. */
int quorvane_session_info_add_framework(QuorvaneSessionInfo* info, const char* name);

/* Sessions of the same client name and service name (letter case aside) belong together. NULL takes a name
 * away. */

typedef struct QuorvaneUserInfo QuorvaneUserInfo;

QuorvaneUserInfo* quorvane_user_info_new(void);
void quorvane_user_info_free(QuorvaneUserInfo* info);
int quorvane_user_info_set_client_name(QuorvaneUserInfo* info, const char* name);
int quorvane_user_info_set_service_name(QuorvaneUserInfo* info, const char* name);
/* Handed to the backends; the two names above win over keys of theirs here. */
int quorvane_user_info_set_further_keys(QuorvaneUserInfo* info, const QuorvaneDictionary* keys);

/* The reporter takes care of the connection: it makes it on a thread of its own, which may be before there is
   a daemon, makes it anew when it is lost, and sets the session up again. Events keep their order. They go to
   the daemon together where they can: one waits for others for up to 20 ms, one with QUORVANE_FLAG_SEND_NOW
   for none. */

typedef struct QuorvaneReporter QuorvaneReporter;
typedef struct QuorvaneReporterOptions QuorvaneReporterOptions;

enum QuorvaneReporterState {
    QUORVANE_REPORTER_CONNECTING = 0,  /* A connection is being made, or its session set up. Events wait. */
    QUORVANE_REPORTER_CONNECTED = 1,   /* Events go to the daemon. */
    QUORVANE_REPORTER_DISCONNECTED = 2 /* No daemon answers; it is tried again after a while. Events wait. */
};

/* Told of every change of state, on the reporter's thread, which does nothing else meanwhile. Backends, when
   connected, are the names of those that report, ended by NULL, or NULL when there are none for want of a
   storebag; then the daemon makes nothing of events. Code and message, when disconnected, say why. The
   callback may call everything of the reporter but flush, close and free. */
typedef void (*QuorvaneStateCallback)(void* context, int state, const char* const* backends, int code,
                                      const char* message);

QuorvaneReporterOptions* quorvane_reporter_options_new(void);
void quorvane_reporter_options_free(QuorvaneReporterOptions* options);
int quorvane_reporter_options_set_session_info(QuorvaneReporterOptions* options,
                                               const QuorvaneSessionInfo* info);
/* NULL for none. */
int quorvane_reporter_options_set_user_info(QuorvaneReporterOptions* options, const QuorvaneUserInfo* info);
/* Unless set: /run/quorvane/com.velmora.quorvaned in the folder that the environment variable QUORVANE_ROOT
 * names. */
int quorvane_reporter_options_set_socket_path(QuorvaneReporterOptions* options, const char* path);
/* The most events that wait, and the most bytes of them (an event of 8 keys takes about 200). At least 1
   each; 10,000 and 8 MiB unless set. */
void quorvane_reporter_options_set_queue(QuorvaneReporterOptions* options, size_t events, size_t bytes);
/* Pause before a lost connection is made anew, in milliseconds above 0; it doubles with each failure up to
   the longest. 100 and 30,000 unless set. A session without a storebag is started again likewise, with pauses
   of up to 5 minutes. */
void quorvane_reporter_options_set_retry(QuorvaneReporterOptions* options, uint32_t first, uint32_t longest);
/* Longest wait of quorvane_reporter_free for the daemon to take what waits; 5 s unless set. */
void quorvane_reporter_options_set_close_timeout(QuorvaneReporterOptions* options, int64_t timeout);
/* The context is handed to the callback as it is. NULL for no callback. */
void quorvane_reporter_options_set_state_callback(QuorvaneReporterOptions* options,
                                                  QuorvaneStateCallback callback, void* context);

/* Fails for options that no daemon could take, and for want of a thread or a descriptor. That no daemon
   answers is no failure. */
int quorvane_reporter_start(const QuorvaneReporterOptions* options, QuorvaneReporter** reporter,
                            char** message);
/* Closes the reporter, as quorvane_reporter_close with the options' close time-out. */
void quorvane_reporter_free(QuorvaneReporter* reporter);
/* Queues the event and never waits. False when it was dropped; the statistics tell why. The payload may be
 * NULL. */
bool quorvane_reporter_report(QuorvaneReporter* reporter, uint16_t category, uint16_t type,
                              const QuorvaneDictionary* payload, uint32_t flags);
/* From here on events are reported with this user info, NULL for none; those queued before keep the former.
 * Never waits. */
int quorvane_reporter_set_user_info(QuorvaneReporter* reporter, const QuorvaneUserInfo* info, char** message);
/* Sends what waits and makes the backends post what they hold back; returns when the daemon has answered
   that. 30 s unless told otherwise. */
int quorvane_reporter_flush(QuorvaneReporter* reporter, int64_t timeout, char** message);
/* Sends what waits while a daemon answers and the time-out (5 s unless told otherwise) allows, drops the
   rest, and ends the connection. Events reported later are dropped. Not beside another close. */
int quorvane_reporter_close(QuorvaneReporter* reporter, int64_t timeout);

/* What became of the events: reported is the sum of all others but sessions, always. */
typedef struct QuorvaneReporterStatistics {
    uint64_t reported;
    uint64_t waiting;            /* In the queue, or on their way and unanswered. */
    uint64_t taken;              /* The daemon has answered that it took them. */
    uint64_t dropped_full;       /* The queue was full, or there was no memory. */
    uint64_t dropped_unsendable; /* D-Bus cannot carry them (see QUORVANE_INVALID_ARGUMENT). */
    uint64_t dropped_too_large;  /* Larger than the queue, or than 32 MiB. */
    uint64_t dropped_refused;    /* The daemon has answered that it did not take them. */
    uint64_t dropped_lost;   /* On their way when the connection was lost; the daemon may have taken them. */
    uint64_t dropped_at_end; /* Still waiting when the reporter was closed, or reported after. */
    uint64_t sessions;       /* How often a session was set up. No count of events. */
} QuorvaneReporterStatistics;

/* Size is the structure's as the caller knows it: a later library may count more, an earlier one leaves what
   it does not know 0. */
int quorvane_reporter_statistics(const QuorvaneReporter* reporter, QuorvaneReporterStatistics* statistics,
                                 size_t size);

/* The client is one session over a connection of its own. Calls from one thread reach the daemon in their
   order. When the daemon does not keep up, senders wait; nothing is dropped. A lost connection gives
   QUORVANE_DISCONNECTED from then on. */

typedef struct QuorvaneClient QuorvaneClient;
typedef struct QuorvaneClientOptions QuorvaneClientOptions;

/* Told once when the connection is lost; not when the client is freed. */
typedef void (*QuorvaneDisconnectedCallback)(void* context, int code, const char* message);
/* The answer to an event, or NULL where the daemon has none; or what went wrong. */
typedef void (*QuorvaneAnswerCallback)(void* context, int code, const char* answer, const char* message);
/* How far an upload is. */
enum QuorvaneUploadStep {
    QUORVANE_UPLOAD_OPENED = 0,  /* The file is open. */
    QUORVANE_UPLOAD_LENT = 1,    /* The daemon holds the file and is about to send it. */
    QUORVANE_UPLOAD_FINISHED = 2 /* The daemon has answered. */
};
typedef void (*QuorvaneProgressCallback)(void* context, int step, uint64_t file_bytes);

QuorvaneClientOptions* quorvane_client_options_new(void);
void quorvane_client_options_free(QuorvaneClientOptions* options);
/* As for the reporter. */
int quorvane_client_options_set_socket_path(QuorvaneClientOptions* options, const char* path);
/* Longest wait of quorvane_client_connect; 30 s unless set. */
void quorvane_client_options_set_timeout(QuorvaneClientOptions* options, int64_t timeout);
/* Longest wait of quorvane_client_free for the daemon to take what was sent; 5 s unless set. */
void quorvane_client_options_set_close_timeout(QuorvaneClientOptions* options, int64_t timeout);
void quorvane_client_options_set_disconnected_callback(QuorvaneClientOptions* options,
                                                       QuorvaneDisconnectedCallback callback, void* context);

/* Connects and waits until the daemon answers. Options may be NULL. */
int quorvane_client_connect(const QuorvaneClientOptions* options, QuorvaneClient** client, char** message);
/* Waits until the daemon has taken everything sent, but no longer than the close time-out, then closes.
   Callbacks that have not begun are dropped; one that runs is waited for, unless it is the caller. */
void quorvane_client_free(QuorvaneClient* client);

/* Configures the session; comes before quorvane_client_start. The user info may be NULL. 30 s unless told
   otherwise, as for all calls of which nothing else is said. */
int quorvane_client_set_session_info(QuorvaneClient* client, const QuorvaneSessionInfo* session_info,
                                     const QuorvaneUserInfo* user_info, int64_t timeout, char** message);
/* An event of this client's session or of one below it: in seconds since 1970, when. The payload is NULL when
   there is none, and the library's. */
typedef void (*QuorvaneEventCallback)(void* context, double timestamp, uint16_t category, uint16_t type,
                                      const QuorvaneDictionary* payload);
/* No more events come. */
typedef void (*QuorvaneEndedCallback)(void* context);
/* The same for a client that aggregates: it gets the events of the sessions of its user info's names that are
   below its own. ended may be NULL. */
int quorvane_client_set_aggregating_session_info(QuorvaneClient* client,
                                                 const QuorvaneSessionInfo* session_info,
                                                 const QuorvaneUserInfo* user_info,
                                                 QuorvaneEventCallback event, QuorvaneEndedCallback ended,
                                                 void* context, int64_t timeout, char** message);
/* Events for the callback that were dropped, since it did not keep up: 4 MiB wait for it, and as much again
   while a call waits for its answer. */
uint64_t quorvane_client_dropped_events(const QuorvaneClient* client);
/* Makes the daemon set up the session's backends, for which it may download; 90 s unless told otherwise.
   Backends, where not NULL, are set to the names of those that report; to NULL when there are none for want
   of a storebag. */
int quorvane_client_start(QuorvaneClient* client, int64_t timeout, char*** backends, char** message);
/* Gives or changes the user info, or takes it away with NULL, and asks for the backends that report. */
int quorvane_client_fetch_states(QuorvaneClient* client, const QuorvaneUserInfo* user_info, int64_t timeout,
                                 char*** backends, char** message);
/* Where the session's events can be looked at, or "URL not available". */
int quorvane_client_display_url(QuorvaneClient* client, int64_t timeout, char** url, char** message);

/* Sends an event and waits for the daemon's answer; NULL where the daemon has none. The payload may be NULL,
   and answer for who does not want it. */
int quorvane_client_send(QuorvaneClient* client, uint16_t category, uint16_t type,
                         const QuorvaneDictionary* payload, uint32_t flags, int64_t timeout, char** answer,
                         char** message);
/* Sends an event; with QUORVANE_OK the callback gets the answer, exactly once unless the client is freed
   before. Waits while 1,024 calls are unanswered. */
int quorvane_client_send_async(QuorvaneClient* client, uint16_t category, uint16_t type,
                               const QuorvaneDictionary* payload, uint32_t flags, int64_t timeout,
                               QuorvaneAnswerCallback callback, void* context, char** message);
/* Sends an event that is not answered. Success means that it is on its way. */
int quorvane_client_send_and_forget(QuorvaneClient* client, uint16_t category, uint16_t type,
                                    const QuorvaneDictionary* payload, uint32_t flags, char** message);
/* The same, but never waits: QUORVANE_WOULD_BLOCK when the daemon does not keep up, and the event is not
 * sent. */
int quorvane_client_try_send(QuorvaneClient* client, uint16_t category, uint16_t type,
                             const QuorvaneDictionary* payload, uint32_t flags, char** message);
/* Makes the backends post what they hold back. */
int quorvane_client_flush(QuorvaneClient* client, int64_t timeout, char** answer, char** message);
/* Sends one event through backends made for it alone: "finished", also when they have no use for it, or
   "storebag not available". The daemon never answers when the session info lacks session ID or client type.
   90 s unless told otherwise. */
int quorvane_client_send_single(QuorvaneClient* client, const QuorvaneSessionInfo* session_info,
                                const QuorvaneUserInfo* user_info, uint16_t category, uint16_t type,
                                const QuorvaneDictionary* payload, int64_t timeout, char** answer,
                                char** message);

/* Lends the regular file at the path to the daemon, which uploads it; uploaded tells whether a backend took
   it. When a server asks for it, the file is removed afterwards. The callback, where not NULL, runs on the
   calling thread. An hour unless told otherwise. */
int quorvane_client_upload_file(QuorvaneClient* client, const char* path, QuorvaneProgressCallback callback,
                                void* context, int64_t timeout, bool* uploaded, char** message);
/* Uploads log data; an hour unless told otherwise. */
int quorvane_client_upload_log_data(QuorvaneClient* client, const QuorvaneArray* log_data, int64_t timeout,
                                    bool* uploaded, char** message);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
