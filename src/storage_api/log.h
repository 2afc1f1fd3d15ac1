// The platform's debug log.
#ifndef KELVO_STORAGE_API_LOG_H
#define KELVO_STORAGE_API_LOG_H

void log_Debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
