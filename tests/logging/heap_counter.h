// Counts the heap allocations that this program's own code makes (operator new lands in
// malloc too), by sending the program's imports of malloc, calloc and realloc through
// counters for the life of the object. One counter at a time.
#pragma once

#include <atomic>

class HeapCounter {
public:
    HeapCounter();
    ~HeapCounter();
    // False if the imports couldn't be found: the count then proves nothing.
    bool Hooked() const { return hooked; }
    // On the thread that made the counter, and on all threads.
    long Count() const;
    long CountAllThreads() const;

    HeapCounter(const HeapCounter&) = delete;
    HeapCounter& operator=(const HeapCounter&) = delete;

private:
    bool hooked = false;
};
