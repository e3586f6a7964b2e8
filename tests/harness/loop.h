/* Running the main loop inside a test, under a watchdog. One place for every program that has a loop. */
#ifndef BRISEL_HARNESS_LOOP_H
#define BRISEL_HARNESS_LOOP_H

#include <gtest/gtest.h>

#include <functional>
#include <source_location>

/* Runs the main loop until done() holds; false when it does not within the patience of a slow machine, and then says
   which line waited. What loop_also() was given is called between its turns. */
bool run_until(const std::function<bool()> &done, std::source_location at = std::source_location::current());
/* Runs the main loop until everything that is ready now has been handled. */
void settle(void);
/* Runs the main loop for that long. For fingers only, that are held or on their way: how long a gesture takes is a part
   of it. Everything else is waited for, and nothing is asserted about time. */
void run_for(double seconds);

/* Work that goes on beside the loop (another peer's connection), until the number is given back. */
int loop_also(const std::function<void()> &work);
void loop_no_more(int number);

/* Runs work in a process of its own and waits for it; true when it returned true. */
bool in_child(const std::function<bool()> &work);

#endif
