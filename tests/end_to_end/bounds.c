/*
 * Check that the library stays within the caller's buffers, even if readers send descriptors of the maximum
 * length. Each buffer ends at an inaccessible page.
 */
#include "testing.h"

#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { bulk_reader = 1, control_reader };
enum { bulk_id = 0xB1, control_id = 0xC1 };

enum { longest_string = 126 }; /* a descriptor has at most 255 bytes, which is room for 126 UTF-16 units */

struct edge {
    char* mapped;
    size_t page, size;
};

/* Return `size` bytes, at most a page, in front of an inaccessible page. */
static struct edge edge_of(size_t size) {
    struct edge edge = {.page = (size_t)sysconf(_SC_PAGESIZE), .size = size};
    assert_true(size <= edge.page);
    edge.mapped = mmap(NULL, 2 * edge.page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    assert_ptr_not_equal(edge.mapped, MAP_FAILED);
    assert_int_equal(mprotect(edge.mapped + edge.page, edge.page, PROT_NONE), 0);
    memset(edge.mapped, '#', edge.page);
    return edge;
}

static char* memory(const struct edge* edge) {
    return edge->mapped + edge->page - edge->size;
}

static void free_edge(struct edge* edge) {
    for (const char* before = edge->mapped; before < memory(edge); ++before) {
        assert_int_equal(*before, '#');
    }
    munmap(edge->mapped, 2 * edge->page);
}

static void check_value(int handle, const char* key, const char* expected) {
    struct edge value = edge_of(GVUSB_PARAMETER_SIZE);
    assert_int_equal(GVUSB_GetDevicePara(handle, key, memory(&value)), 0);
    assert_string_equal(memory(&value), expected);
    free_edge(&value);
}

/* Both readers send `told` as all of their strings except the ID; the library must read `expected`. */
static void check_strings(const char* told, const char* expected) {
    static const int indexes[] = {3, 5, 6, 10};
    for (int reader = bulk_reader; reader <= control_reader; ++reader) {
        for (size_t i = 0; i < sizeof indexes / sizeof *indexes; ++i) {
            bus("string %d %d %s", reader, indexes[i], told);
        }
    }
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    static const unsigned int ids[] = {bulk_id, control_id};
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = GVUSB_GetDeviceHnd(ids[i]);
        assert_true(handle > 0);
        check_value(handle, "FAMILYNAME", expected);
        check_value(handle, "DEVICENAME", expected);
        check_value(handle, "INTERFACE", expected);
        check_value(handle, "TYPENUMBER", expected);
        check_echo(handle);
    }
}

static void repeat(char* text, const char* piece, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        text[i] = piece[i % strlen(piece)];
    }
    text[size] = '\0';
}

static void TheLongestDescriptorsAreReadCompletely(void** state) {
    char text[longest_string + 1];
    repeat(text, "x", longest_string);
    check_strings(text, text);
}

static void FormatSpecifiersInDescriptorsAreNotInterpreted(void** state) {
    char text[longest_string + 1];
    repeat(text, "%n%s%1000d", longest_string);
    check_strings(text, text);
}

static void CharactersBeyondAsciiAreReadAsQuestionMarks(void** state) {
    char text[longest_string + 1];
    char marks[longest_string / 2 + 1];
    repeat(text, "\xC3\xA4", longest_string);
    repeat(marks, "?", longest_string / 2);
    check_strings(text, marks);
}

static void AnIdOfMaximumLengthIsANumberFollowedByText(void** state) {
    char description[3 + longest_string + 1] = "id=";
    repeat(description + 3, "z", longest_string);
    memcpy(description + 3, "FEED", 4);
    plug_new(description);
    scan_until(control_reader + 1);
    const int handle = open_reader(0xFEED);
    check_value(handle, "DEVICE-ID", "FEED");
    check_echo(handle);
}

/* A program may have been built with a longer device-ID field. These lengths keep the records aligned. */
static void ASearchRecordNeedsATerminatorOnlyAfterItsDeviceId(void** state) {
    static const size_t device_id_lengths[] = {0, 4, 24, 28, 100, 252};
    for (size_t i = 0; i < sizeof device_id_lengths / sizeof *device_id_lengths; ++i) {
        struct edge record = edge_of(offsetof(GVUSB_SCANSEARCH, devId) + device_id_lengths[i] + 1);
        char* const bytes = memory(&record);
        for (int mask = 0; mask < 8; ++mask) {
            memset(bytes, 'f', record.size);
            memcpy(bytes, &mask, sizeof mask);
            bytes[record.size - 1] = '\0';
            assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, (void*)bytes),
                             GVUSB_ERR_NO_DEVICE_FOUND);
        }
        free_edge(&record);
    }
}

static void ALongDeviceIdIsFound(void** state) {
    struct edge record = edge_of(offsetof(GVUSB_SCANSEARCH, devId) + 253);
    const int mask = GVUSB_SEARCH_DEVICE_ID;
    memset(memory(&record), '0', record.size);
    memcpy(memory(&record), &mask, sizeof mask);
    memcpy(memory(&record) + record.size - 3, "B1", 3);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, (void*)memory(&record)), GVUSB_OK);
    assert_int_equal(GVUSB_GetScanListSize(), 1);
    free_edge(&record);
}

static void FramesStayWithinTheirBuffers(void** state) {
    static const unsigned int sizes[] = {1, 2, 63, 64, 65, 512, 4095, 4096};
    static const unsigned int ids[] = {bulk_id, control_id};
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        for (size_t s = 0; s < sizeof sizes / sizeof *sizes; ++s) {
            struct edge frame = edge_of(sizes[s]);
            struct edge answer = edge_of(sizes[s]);
            memset(memory(&frame), 'q', sizes[s]);
            assert_int_equal(GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, (void*)memory(&frame), sizes[s],
                                              (void*)memory(&answer), sizes[s]),
                             (int)sizes[s]);
            assert_memory_equal(memory(&answer), memory(&frame), sizes[s]);
            free_edge(&frame);
            free_edge(&answer);
        }
    }
}

static void LengthsBeyondLibusbsLimitAreRefused(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    static const int codes[] = {GVUSB_ERR_BULK_TRANSFER, GVUSB_ERR_SEND_LENGTH};
    const unsigned char frame[1] = {1};
    unsigned char answer[1] = {2};
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        assert_int_equal(GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, 0x80000000), codes[i]);
        assert_int_equal(
            GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, 0xFFFFFFFF, answer, sizeof answer), codes[i]);
        assert_int_equal(answer[0], 2);
        check_echo(handle);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(TheLongestDescriptorsAreReadCompletely),
        TEST_CASE(FormatSpecifiersInDescriptorsAreNotInterpreted),
        TEST_CASE(CharactersBeyondAsciiAreReadAsQuestionMarks),
        TEST_CASE(AnIdOfMaximumLengthIsANumberFollowedByText),
        TEST_CASE(ASearchRecordNeedsATerminatorOnlyAfterItsDeviceId),
        TEST_CASE(ALongDeviceIdIsFound),
        TEST_CASE(FramesStayWithinTheirBuffers),
        TEST_CASE(LengthsBeyondLibusbsLimitAreRefused),
    };
    return run_group("bounds", tests, sizeof tests / sizeof *tests, argc, argv);
}
