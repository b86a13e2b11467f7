/* Makes one allocation of the daemon fail; preloaded into it.
 *
 * The file named by ALLOCATION_PLAN is shared memory: which allocation fails, 0 for none, how many there were since that
 * was set, and whether only those count that C++ code makes: PAM's libraries and the loader of their modules do not bear
 * a failure. Those of all threads count. Other processes are left alone. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *memory, size_t size);
extern void *__libc_memalign(size_t alignment, size_t size);

static struct plan { atomic_int fails, count, only_cpp; } *plan;
static struct { uintptr_t begin, end; } cpp_library;

static int find_cpp_library(struct dl_phdr_info *object, size_t size, void *data) {
  (void)size, (void)data;
  if (!strstr(object->dlpi_name, "/libstdc++.so")) return 0;
  cpp_library.begin = object->dlpi_addr;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const uintptr_t end = object->dlpi_addr + object->dlpi_phdr[i].p_vaddr + object->dlpi_phdr[i].p_memsz;
    if (object->dlpi_phdr[i].p_type == PT_LOAD && end > cpp_library.end) cpp_library.end = end;
  }
  return 1;
}

__attribute__((constructor)) static void begin(void) {
  static const char program[] = "/kestreld";
  char line[4096];
  int file = open("/proc/self/cmdline", O_RDONLY);
  const ssize_t length = read(file, line, sizeof line);
  close(file);
  if (length <= 0 || !memmem(line, (size_t)length, program, sizeof program)) return;
  file = open(getenv("ALLOCATION_PLAN"), O_RDWR);
  void *memory = mmap(NULL, sizeof *plan, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (memory == MAP_FAILED || !dl_iterate_phdr(find_cpp_library, NULL)) abort();
  plan = memory;
}

static int fails(void *caller) {
  if (!plan || atomic_load(&plan->fails) == 0) return 0;
  const uintptr_t from = (uintptr_t)caller;
  if (atomic_load(&plan->only_cpp) && (from < cpp_library.begin || from >= cpp_library.end)) return 0;
  if (atomic_fetch_add(&plan->count, 1) + 1 != atomic_load(&plan->fails)) return 0;
  errno = ENOMEM;
  return 1;
}

void *malloc(size_t size) { return fails(__builtin_return_address(0)) ? NULL : __libc_malloc(size); }
void *calloc(size_t count, size_t size) { return fails(__builtin_return_address(0)) ? NULL : __libc_calloc(count, size); }
void *realloc(void *memory, size_t size) { return fails(__builtin_return_address(0)) ? NULL : __libc_realloc(memory, size); }
void *aligned_alloc(size_t alignment, size_t size) { return fails(__builtin_return_address(0)) ? NULL : __libc_memalign(alignment, size); }
