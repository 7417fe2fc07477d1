/*
 * One process runs for a long time: readers come and go continuously while others are used. Nothing may grow,
 * get lost or be reported twice.
 *
 * The argument is the number of seconds to run, 5 by default. Prints a line each minute, in a run of less
 * than ten minutes each second, and a verdict. Exits with 0 if every limit was kept.
 */
#include "bus.h"
#include "gvusb.h"
#include "process_figures.h"
#include "soak_exchanges.h"
#include "soak_reports.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { bulk_id = 0x50, control_id, visited_id, kept_id, first_comer_id = 0xA0, comers = 4, listed = 4 };

enum { usual_seconds = 5, longest_wait_ms = 60000, update_rate_us = 10000, pause_us = 20000 };

/* The permitted difference between the averages over the second and the last quarter of the time. */
enum { resident_tolerance_kb = 256, heap_tolerance_bytes = 16384 };

/*
 * The readers' numbers. The watched ones are the one that is kept open (0) and those that come and go (1 and
 * up).
 */
static int kept, first_comer;
static int kept_handle;

/* Every poll and every scan opens the watcher, because it cannot identify itself. */
static int watcher;
static long opens_at_start;

static long changes, scans;

static long poll_count(void) {
    return host_count(watcher, "opens") - opens_at_start - scans;
}

static bool has_polls(void* wanted) {
    return poll_count() >= *(const long*)wanted;
}

/* A duplicate report would come from one of the next polls. */
static void await_reports(void) {
    await(all_reported, NULL, longest_wait_ms);
    long wanted = poll_count() + 2;
    if (!await(has_polls, &wanted, longest_wait_ms)) {
        note_failure(0);
    }
}

static void scan(void) {
    ++scans;
    const int result = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    if (result != 0) {
        note_failure(result);
    }
}

static bool answers(void* nothing) {
    (void)nothing;
    return exchange(kept_handle);
}

static bool answers_after_scan(void* nothing) {
    scan();
    return answers(nothing);
}

static void change(const char* command, int reader) {
    bus("%s %d", command, reader);
    ++changes;
}

static void change_comers(const char* command, unsigned int which) {
    for (int i = 1; i <= comers; ++i) {
        if ((which >> i & 1) != 0) {
            change(command, first_comer + i - 1);
        }
    }
}

static void suspend_polls(void) {
    GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1");
    usleep(2 * update_rate_us); /* the thread that polls notices it */
    scan();                     /* waits for a poll in progress */
}

static void resume_polls(void) {
    GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0");
}

/* A poll puts the reader in its old place; sometimes a scan does. */
static void bring_kept_reader_back(bool by_scan) {
    if (by_scan) {
        suspend_polls();
        begin_period(0, 0);
    }
    change("plug", kept);
    const bool back = await(by_scan ? answers_after_scan : answers, NULL, longest_wait_ms);
    const int handle = GVUSB_GetDeviceHnd(kept_id);
    if (!back || handle != kept_handle) {
        note_failure(handle);
    }
    if (by_scan) {
        resume_polls();
    }
}

static void come_and_go(unsigned int random) {
    const unsigned int which = (1 + random % ((1U << comers) - 1)) << 1;
    begin_period(GVUSB_EVENT_CONNECT, which);
    scan();
    change_comers("plug", which);
    await_reports();

    begin_period(GVUSB_EVENT_DISCONNECT, which | 1);
    scan();
    change_comers("unplug", which);
    change("unplug", kept);
    await_reports();
    bring_kept_reader_back(random % 4 == 0);
}

/* Measure while neither polls nor exchanges have anything open. */
static struct process_figures quiet_figures(void) {
    suspend_polls();
    begin_period(0, 0);
    pause_exchanges();
    const struct process_figures figures = own_figures();
    resume_exchanges();
    resume_polls();
    return figures;
}

static void print_line(double seconds) {
    const struct process_figures own = own_figures();
    const struct process_figures launcher = figures_of(getppid());
    const struct report_counts counts = report_counts();
    printf("%6.0f s  polls %ld  scans %ld  changes %ld  due %ld  reported %ld  doubled %ld  late %ld  "
           "exchanges %ld  failures %ld  resident %ld kB  heap %ld B  descriptors %ld  threads %ld  "
           "processor %.0f%%  launcher %ld kB, %ld descriptors\n",
           seconds, poll_count(), scans, changes, counts.due, counts.reported, counts.doubled, counts.late,
           exchange_count(), failure_count(), own.resident_kb, own.heap_bytes, own.descriptors, own.threads,
           processor_seconds() * 100 / seconds, launcher.resident_kb, launcher.descriptors);
}

static bool check(bool good, const char* what, double figure, double limit) {
    printf("%s %s: %.0f (%.0f)\n", good ? "ok    " : "FAILED", what, figure, limit);
    return good;
}

static bool check_equal(const char* what, long figure, long wanted) {
    return check(figure == wanted, what, (double)figure, (double)wanted);
}

/* Not checked with sanitizers: the thread sanitizer keeps two pipes once it has symbolized a suppressed report. */
static bool check_descriptors(long figure, long wanted) {
#ifdef GVUSB_TEST_SANITIZED
    (void)figure, (void)wanted;
    return true;
#else
    return check_equal("descriptors", figure, wanted);
#endif
}

/* Memory is not checked with sanitizers, because they keep freed memory without counting it. */
static bool check_memory(const struct memory_samples* early, const struct memory_samples* last) {
#ifdef GVUSB_TEST_SANITIZED
    (void)early, (void)last;
    return true;
#else
    const double resident = last->resident_kb / last->count - early->resident_kb / early->count;
    const double heap = last->heap_bytes / last->count - early->heap_bytes / early->count;
    const bool good = check(resident <= resident_tolerance_kb, "growth of resident memory, kB", resident,
                            resident_tolerance_kb);
    return check(heap <= heap_tolerance_bytes, "growth of the heap in use, bytes", heap,
                 heap_tolerance_bytes) &&
           good;
#endif
}

static bool verdict(const struct memory_samples quarters[4], const struct process_figures* before) {
    const struct process_figures after = quiet_figures();
    const struct report_counts counts = report_counts();
    printf("\nResults, with the expected or maximum value in parentheses:\n");
    bool good = check_equal("reports that went missing", counts.due - counts.reported, 0);
    good &= check_equal("reports that were not due", counts.doubled, 0);
    good &= check_equal("reports with a wrong handle", counts.wrong_handles, 0);
    good &= check_equal("failures", failure_count(), 0);
    good &= check_equal("code of the first failure", first_failure(), 0);
    good &= check_descriptors(after.descriptors, before->descriptors);
    good &= check_equal("threads", after.threads, before->threads);
    return check_memory(&quarters[1], &quarters[3]) && good;
}

static void soak(double seconds, struct memory_samples quarters[4]) {
    const double line_apart = seconds < 600 ? 1 : 60;
    const double begin = now_ms();
    double next_line = line_apart;
    double next_sample = 0;
    unsigned int random = 1;
    for (double elapsed = 0; elapsed < seconds; elapsed = (now_ms() - begin) / 1e3) {
        random = random * 1103515245U + 12345U;
        come_and_go(random >> 16);
        usleep(pause_us);
        if (elapsed >= next_sample) {
            add_memory_sample(&quarters[(int)(elapsed * 4 / seconds)]);
            next_sample = elapsed + 0.1;
        }
        if (elapsed >= next_line) {
            print_line(elapsed);
            next_line += line_apart;
        }
    }
    print_line((now_ms() - begin) / 1e3);
}

static bool all_listed(void* nothing) {
    (void)nothing;
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    return GVUSB_GetScanListSize() == listed;
}

/* Replace all readers on the bus. */
static bool plug_readers(void) {
    for (int reader = reader_count(); reader > 0; --reader) {
        bus("unplug %d", reader);
    }
    plug_new("id=50,name=Bulk reader that stays");
    plug_new("id=51,name=Control reader that stays,product=2,endpoints=control");
    plug_new("id=52,name=Reader that is opened and closed");
    kept = plug_new("id=53,name=Reader that is open and comes back");
    first_comer = plug_new("id=A0,copies=4,plugged=no");
    watcher = plug_new("missing=1");
    return await(all_listed, NULL, longest_wait_ms);
}

static bool prepare(void) {
    if (!plug_readers()) {
        return false;
    }
    kept_handle = open_listed_reader(kept_id);
    watch_reader(0, kept_id, kept_handle);
    for (int i = 1; i <= comers; ++i) {
        watch_reader(i, (unsigned int)(first_comer_id + i - 1), 0);
    }
    suspend_polls(); /* a poll that began before the scan could report unexpectedly */
    opens_at_start = host_count(watcher, "opens") - scans;
    resume_polls();
    return kept_handle > 0 && count_reports() && begin_exchanges(bulk_id, control_id, visited_id);
}

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? atof(argv[1]) : usual_seconds;
    if (seconds < 1 || argc > 2) {
        fprintf(stderr, "usage: %s [SECONDS]\n", argv[0]);
        return 2;
    }
    setlinebuf(stdout);
    alarm((unsigned int)seconds + 60); /* end the program if it hangs */
    if (!prepare()) {
        fprintf(stderr, "The readers could not be prepared.\n");
        return 2;
    }
    come_and_go(0);
    const struct process_figures before = quiet_figures();
    struct memory_samples quarters[4] = {{0, 0, 0}};
    soak(seconds, quarters);
    const bool good = verdict(quarters, &before);
    end_exchanges();
    return good ? 0 : 1;
}
