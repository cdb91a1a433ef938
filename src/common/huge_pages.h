// Huge pages for a program's heap.
#pragma once

// Most of a run's time goes to memory read in no particular order (the
// forms, the step tables, the per-form arrays) and to the kernel faulting in
// its pages one 4 KB page at a time. With 2 MB pages a run on nci5k takes
// about a quarter less time (0.53 s against 0.69 s on one thread). Where
// the system leaves huge pages to each program (transparent huge pages in
// "madvise" mode), glibc's malloc asks for them only when the tunable
// glibc.malloc.hugetlb is in the environment at start, so the program
// starts itself again once, the same way, with it set (and
// TAVRIX_STARTED_WITH_HUGE_PAGES, which keeps it from starting a third
// time). Nothing is done when the tunable is set already
// (GLIBC_TUNABLES=glibc.malloc.hugetlb=0 keeps the program from starting
// again, under a profiler for one), when the system gives huge pages to
// every program or to none, when glibc is older than the tunable, or when
// the program cannot be started again as itself (run through the loader by
// name, or in secure execution).
//
// It also keeps every thread on one heap. Workers allocate seldom once
// started (their buffers are reused), so they hardly wait for each other,
// whereas heaps of their own, each taking huge pages for a few buffers, made
// two threads on nci5k take 0.43 s instead of 0.35 s (17 s instead of 13 s
// on 100,000 compounds, tavrix-apply 0.45 s instead of 0.33 s); without huge
// pages one heap or several make no difference.
void prefer_huge_pages(char** argv);
