// How the process's memory is handed back and shared out: glibc's allocator,
// tuned for a run that reads one long document after another.
#include <cstddef>  // first: it says whether this is glibc
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "app/pipeline/Pipeline.h"
#include "host/Sanitizers.h"

// Under AddressSanitizer (or another sanitizer that owns the heap), glibc's
// allocator holds nothing of ours, and asking it about itself would set it
// up for the first time from whichever job thread asks first: two jobs of a
// batch doing so at once leave its count of threads wrong, and glibc aborts
// when one of them exits.

namespace qvapp {

void releaseFreedMemory() {
#if defined(__GLIBC__) && !defined(QVXML_UNDER_SANITIZERS)
    // What is handed back costs a page fault a page when it is wanted again:
    // worth it only when much is held, as after a long document.
    constexpr std::size_t kWorthReleasing = std::size_t{32} << 20;
    if (::mallinfo2().fordblks >= kWorthReleasing) ::malloc_trim(0);
#endif
}

void shareHeapAmong(int jobs) {
#if defined(__GLIBC__) && !defined(QVXML_UNDER_SANITIZERS)
    // Each new thread would otherwise get a heap of its own, grown a page
    // at a time (a system call and a page fault each): the writer's thread
    // of every export, although the memory the reading just gave back lies
    // ready in the heap it left. One heap a job: a job's threads take turns.
    if (jobs > 0) ::mallopt(M_ARENA_MAX, jobs);
#else
    (void)jobs;
#endif
}

}  // namespace qvapp
