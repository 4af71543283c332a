/* A diagnostics adaptor that shows what it is given: it appends every message, as one readable line, to
   /var/lib/quorvane/ossel-messages.log. Outside this tree:

       cc -shared -fPIC OsselAdaptor.c -o OsselAdaptor.so $(pkg-config --cflags --libs libplist-2.0)
       install -D OsselAdaptor.so /usr/lib/quorvane/OsselAdaptor.so */
#include <quorvane/OsselAdaptor.h>

#include <fcntl.h>
#include <inttypes.h>
#include <plist/plist.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* Past it the file is begun anew. */
#define MAXIMUM_BYTES (1 << 20)

typedef struct Adaptor {
    int file;
} Adaptor;

static void printValue(FILE* out, plist_t value);

static void printText(FILE* out, const char* text) {
    fputc('"', out);
    for (; text != NULL && *text != '\0'; ++text) {
        if (*text == '"' || *text == '\\') fputc('\\', out);
        if ((unsigned char)*text < 0x20)
            fprintf(out, "\\x%02x", (unsigned char)*text);
        else
            fputc(*text, out);
    }
    fputc('"', out);
}

static void printData(FILE* out, plist_t data) {
    uint64_t length = 0;
    const char* bytes = plist_get_data_ptr(data, &length);
    fputc('<', out);
    for (uint64_t i = 0; i < length; ++i) fprintf(out, "%02x", (unsigned char)bytes[i]);
    fputc('>', out);
}

static void printArray(FILE* out, plist_t array) {
    fputc('[', out);
    for (uint32_t i = 0; i < plist_array_get_size(array); ++i) {
        if (i > 0) fputs(", ", out);
        printValue(out, plist_array_get_item(array, i));
    }
    fputc(']', out);
}

static void printDictionary(FILE* out, plist_t dictionary) {
    plist_dict_iter position = NULL;
    plist_dict_new_iter(dictionary, &position);
    const char* separator = "";
    fputc('{', out);
    for (;;) {
        char* key = NULL;
        plist_t value = NULL;
        plist_dict_next_item(dictionary, position, &key, &value);
        if (value == NULL) break;
        fputs(separator, out);
        printText(out, key);
        fputs(": ", out);
        printValue(out, value);
        separator = ", ";
        free(key);
    }
    fputc('}', out);
    free(position);
}

static void printNumber(FILE* out, plist_t number) {
    uint64_t value = 0;
    plist_get_uint_val(number, &value);
    /* libplist tells a negative number from one of 64 bits by comparing only. */
    plist_t negative = plist_new_uint(value);
    if (plist_compare_node_value(number, negative))
        fprintf(out, "%" PRId64, (int64_t)value);
    else
        fprintf(out, "%" PRIu64, value);
    plist_free(negative);
}

static void printReal(FILE* out, plist_t real) {
    double value = 0;
    plist_get_real_val(real, &value);
    fprintf(out, "%g", value);
}

static void printTruth(FILE* out, plist_t truth) {
    uint8_t value = 0;
    plist_get_bool_val(truth, &value);
    fputs(value ? "true" : "false", out);
}

/* Property lists count seconds since 2001. */
static void printDate(FILE* out, plist_t date) {
    int32_t seconds = 0, microseconds = 0;
    plist_get_date_val(date, &seconds, &microseconds);
    if (seconds == INT32_MIN || seconds == INT32_MAX)
        fputs("date(beyond libplist)", out);
    else
        fprintf(out, "date(%" PRId64 ")", (int64_t)seconds + 978307200);
}

static void printValue(FILE* out, plist_t value) {
    switch (plist_get_node_type(value)) {
        case PLIST_STRING:
            printText(out, plist_get_string_ptr(value, NULL));
            break;
        case PLIST_UINT:
            printNumber(out, value);
            break;
        case PLIST_REAL:
            printReal(out, value);
            break;
        case PLIST_BOOLEAN:
            printTruth(out, value);
            break;
        case PLIST_DATE:
            printDate(out, value);
            break;
        case PLIST_DATA:
            printData(out, value);
            break;
        case PLIST_ARRAY:
            printArray(out, value);
            break;
        case PLIST_DICT:
            printDictionary(out, value);
            break;
        default:
            fputs("?", out);
    }
}

static void printMessage(FILE* out, const void* dictionary, size_t length) {
    plist_t message = NULL;
    if (length > 0) plist_from_bin(dictionary, (uint32_t)length, &message);
    if (message != NULL)
        printValue(out, message);
    else
        fputs("(null)", out);
    plist_free(message);
}

static void* init(void) {
    const char* root = getenv("QUORVANE_ROOT");
    char path[4096];
    snprintf(path, sizeof path, "%s/var/lib/quorvane/ossel-messages.log", root != NULL ? root : "");
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    Adaptor* adaptor = file >= 0 ? malloc(sizeof *adaptor) : NULL;
    if (adaptor == NULL) {
        if (file >= 0) close(file);
        return NULL;
    }
    adaptor->file = file;
    return adaptor;
}

static void dealloc(void* object) {
    Adaptor* adaptor = object;
    close(adaptor->file);
    free(adaptor);
}

/* In one write, because several objects share the file. */
static void append(int file, const char* line, size_t size) {
    struct stat status;
    if (fstat(file, &status) == 0 && status.st_size > MAXIMUM_BYTES && ftruncate(file, 0) != 0)
        perror("OsselAdaptor");
    if (write(file, line, size) < 0) perror("OsselAdaptor");
}

static void sendMessage(void* object, uint16_t method, uint16_t respCode, const void* dictionary,
                        size_t length) {
    const Adaptor* adaptor = object;
    char* line = NULL;
    size_t size = 0;
    FILE* out = open_memstream(&line, &size);
    if (out == NULL) return;
    fprintf(out, "%" PRId64 " method=%u respCode=%u ", (int64_t)time(NULL), method, respCode);
    printMessage(out, dictionary, length);
    fputc('\n', out);
    if (fclose(out) == 0) append(adaptor->file, line, size);
    free(line);
}

static const QuorvaneOperation operations[] = {{"sendMessageWithMethod:respCode:dict:", sendMessage}};
static const QuorvaneClass classes[] = {{"OsselAdaptor", init, dealloc, operations, 1}};

const QuorvaneCodeBundle quorvaneCodeBundle = {QUORVANE_CODE_BUNDLE_VERSION, classes, 1};
