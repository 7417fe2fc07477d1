/* Loads, uses and unloads the library in argument 1, as often as argument 2 says. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* C cannot cast a void pointer to a function pointer, so copy it. */
static void look_up(void* library, const char* name, void* function) {
    void* symbol = dlsym(library, name);
    if (symbol == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        exit(2);
    }
    memcpy(function, &symbol, sizeof symbol);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    for (int i = atoi(argv[2]); i > 0; --i) {
        void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        if (library == NULL) {
            fprintf(stderr, "%s\n", dlerror());
            return 2;
        }
        int (*scan_and_open)(int, void*);
        int (*scan_list_size)(void);
        look_up(library, "GVUSB_ScanAndOpen", &scan_and_open);
        look_up(library, "GVUSB_GetScanListSize", &scan_list_size);
        const int result = scan_and_open(3, NULL);
        const int readers = scan_list_size();
        printf("scan: %d, readers: %d\n", result, readers);
        dlclose(library);
        printf("unloaded\n");
    }
    printf("main ends\n");
    return 0;
}
