// Preloaded into the service, makes allocations fail. The file named by the environment variable
// TAV_MEMORY_FAULT, of N bytes, makes every N-th one fail; none fails while there is no such file.
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include <sys/stat.h>

extern "C" {

// The C library's own, which need no search that would allocate.
void *__libc_malloc(std::size_t size);
void *__libc_realloc(void *memory, std::size_t size);

static bool fails() {
    static unsigned long calls = 0;
    const int before = errno;
    const char *const plan = std::getenv("TAV_MEMORY_FAULT");
    struct stat info {};
    const bool planned = plan != nullptr && stat(plan, &info) == 0 && info.st_size > 0;
    errno = before;
    if (!planned || ++calls % static_cast<unsigned long>(info.st_size) != 0) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

void *malloc(std::size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}

void *realloc(void *memory, std::size_t size) {
    return fails() ? nullptr : __libc_realloc(memory, size);
}
}
