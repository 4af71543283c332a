/* The interface between quorvaned and the code bundle /usr/lib/quorvane/OsselAdaptor.so, a diagnostics
   adaptor that is given every event of some sessions. In plain C, so that it can be written in any language
   that makes shared objects.

   The bundle exports one symbol, quorvaneCodeBundle. For every session of client type 7 or 11 whose storebag
   section names the backend "ossel", the daemon makes an object of the class "OsselAdaptor", invokes its
   operation "sendMessageWithMethod:respCode:dict:" for each event, and deallocates it when the session ends:

       static const QuorvaneOperation operations[] = {{"sendMessageWithMethod:respCode:dict:", forward}};
       static const QuorvaneClass classes[] = {{"OsselAdaptor", init, dealloc, operations, 1}};
       const QuorvaneCodeBundle quorvaneCodeBundle = {QUORVANE_CODE_BUNDLE_VERSION, classes, 1};

   Loading. The bundle is loaded for the first session that needs it and stays until the daemon ends, so a new
   one takes effect with a restart. It is a file of root's, or of the user who runs the daemon. Replace it by
   renaming another over it: one that is loaded must not change, and one that is cut short ends the daemon. A
   bundle that is missing, belongs to somebody else, is no shared object or has another version costs the
   daemon a log line and is tried again for the next session. Without the class or the operation, each event
   is refused with a log line.

   Ownership. Everything that quorvaneCodeBundle leads to, texts included, must stay as it is until the daemon
   ends. The daemon owns what init returns and gives it back to dealloc once. The dictionary's bytes are lent
   for the call.

   Threads. The calls for one object come one after another, not always from the same thread. Calls for
   different objects run at the same time, init and dealloc too. A session waits while its object is called.

   Errors. Nothing here reports an error to the daemon: an adaptor deals with its own. What is thrown by init,
   dealloc or an operation written in C++ costs a log line; nothing may be thrown while the bundle is loaded.

   Surroundings. The adaptor runs inside the daemon, with the daemon's rights and in its sandbox: it cannot
   start programs, and writes files only below /var/lib/quorvane. It must leave signals, the locale, the
   environment and the working directory alone. */
#ifndef QUORVANE_OSSEL_ADAPTOR_H
#define QUORVANE_OSSEL_ADAPTOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Of the structures below; it changes whenever they do. */
#define QUORVANE_CODE_BUNDLE_VERSION 1u

/* method and respCode are the event's category and type. The dictionary is the event's payload as a binary
   property list ("bplist00"), in length bytes; NULL and 0 when the event has none. */
typedef struct QuorvaneOperation {
    const char* selector;
    void (*invoke)(void* object, uint16_t method, uint16_t respCode, const void* dictionary, size_t length);
} QuorvaneOperation;

typedef struct QuorvaneClass {
    const char* name;
    void* (*init)(void); /* A new object; NULL when there can be none, and then each event is refused. */
    void (*dealloc)(void* object); /* NULL when nothing is to be given back. */
    const QuorvaneOperation* operations;
    size_t operationCount;
} QuorvaneClass;

typedef struct QuorvaneCodeBundle {
    uint32_t version; /* QUORVANE_CODE_BUNDLE_VERSION */
    const QuorvaneClass* classes;
    size_t classCount;
} QuorvaneCodeBundle;

/* The bundle defines it, as data. */
extern const QuorvaneCodeBundle quorvaneCodeBundle __attribute__((visibility("default")));

#ifdef __cplusplus
}
#endif

#endif
