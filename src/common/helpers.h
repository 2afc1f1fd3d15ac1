// Helpers of the stand-in library and kelvo-report alike.
#ifndef KELVO_COMMON_HELPERS_H
#define KELVO_COMMON_HELPERS_H

#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <string>

// A fixed-size field as a text: its bytes up to |width| or the first zero byte.
inline std::string field_text(const char* field, size_t width) {
    return std::string(field, strnlen(field, width));
}

// |path| resolved against the working directory of the moment, so that it
// still names the same file after a chdir (autoclean's measurement makes
// one). Null, empty and absolute paths come back as they are.
inline std::string absolute_path(const char* path) {
    if (path == nullptr || *path == '\0' || *path == '/') return path ? path : "";
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return path;
    std::string result = cwd;
    if (result.empty() || result.back() != '/') result += '/';
    return result + path;
}

#endif
