// Huge pages for a program's heap.
#pragma once

// Most of a run's time goes to memory read in no particular order (the
// forms, the step tables, the per-form arrays) and to the kernel faulting in
// its pages one 4 KB page at a time. With 2 MB pages a run on nci5k takes
// about a third less time. Where the system leaves huge pages to each
// program (transparent huge pages in "madvise" mode), glibc's malloc asks
// for them only when the tunable glibc.malloc.hugetlb is in the environment
// at start, so the program starts itself again once, the same way, with it
// set. Nothing is done when the tunable is set already (GLIBC_TUNABLES=
// glibc.malloc.hugetlb=0 keeps the program from starting again, under a
// profiler for one), when the system gives huge pages to every program or
// to none, or when the program cannot be started again.
void prefer_huge_pages(char** argv);
