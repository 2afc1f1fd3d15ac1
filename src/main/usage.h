#ifndef KELVO_MAIN_USAGE_H
#define KELVO_MAIN_USAGE_H

// Prints the usage text on standard output and ends the process with 0.
[[noreturn]] void print_usage();

#endif
