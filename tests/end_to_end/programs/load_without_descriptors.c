/* Loads the library in argument 1 with one file descriptor left, which is too few for libusb to start. */
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

static int call(void* library, const char* name) {
    int (*function)(int, void*);
    void* symbol = dlsym(library, name);
    memcpy(&function, &symbol, sizeof function);
    return function(3, NULL);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    const int lowest_free = open("/dev/null", O_RDONLY);
    close(lowest_free);
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = (rlim_t)lowest_free + 1;
    setrlimit(RLIMIT_NOFILE, &limit);

    void* library = dlopen(argv[1], RTLD_NOW);
    if (library == NULL) {
        printf("%s\n", dlerror());
        return 2;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    printf("scan: %d\n", call(library, "GVUSB_Scan"));
    printf("scan and open: %d\n", call(library, "GVUSB_ScanAndOpen"));
    printf("open: %d\n", call(library, "GVUSB_OpenDevice"));
    dlclose(library);
    printf("unloaded\n");
    return 0;
}
