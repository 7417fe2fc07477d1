/* Captures the transfers of all buses with the kernel's usbmon until SIGTERM: kernel_usbmon FILE. */
#include <pcap/pcap.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

static pcap_t* capture;

static void stop(int signal) {
    (void)signal;
    pcap_breakloop(capture);
}

_Noreturn static void give_up(const char* what) {
    fprintf(stderr, "usbmon: %s: %s\n", what, pcap_geterr(capture));
    exit(EXIT_FAILURE);
}

static void write_packet(u_char* file, const struct pcap_pkthdr* header, const u_char* data) {
    pcap_dump(file, header, data);
    pcap_dump_flush((pcap_dumper_t*)file);
}

int main(int count, char** arguments) {
    char error[PCAP_ERRBUF_SIZE];
    if (count != 2) {
        return EXIT_FAILURE;
    }
    capture = pcap_create("usbmon0", error);
    if (capture == NULL) {
        fprintf(stderr, "usbmon: %s\n", error);
        return EXIT_FAILURE;
    }
    const struct sigaction action = {.sa_handler = stop};
    sigaction(SIGTERM, &action, NULL);
    enum { longest_packet = 262144, wait_ms = 50 };
    pcap_set_snaplen(capture, longest_packet);
    pcap_set_timeout(capture, wait_ms);
    if (pcap_activate(capture) != 0) {
        give_up("activate");
    }
    pcap_dumper_t* const file = pcap_dump_open(capture, arguments[1]);
    if (file == NULL || pcap_dump_flush(file) != 0) {
        give_up(arguments[1]);
    }
    puts("ready");
    fflush(stdout);
    if (pcap_loop(capture, -1, write_packet, (u_char*)file) == PCAP_ERROR) {
        give_up("loop");
    }
    struct pcap_stat statistics;
    if (pcap_stats(capture, &statistics) == 0 && statistics.ps_drop != 0) {
        fprintf(stderr, "usbmon: %u packets were dropped\n", statistics.ps_drop);
        return EXIT_FAILURE;
    }
    pcap_dump_close(file);
    pcap_close(capture);
    return EXIT_SUCCESS;
}
