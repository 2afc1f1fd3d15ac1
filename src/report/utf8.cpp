// Texts from the server made safe for outputs that must be UTF-8.
#include <string>

#include "report.h"

// Replaces every byte that does not start a valid UTF-8 sequence with U+FFFD.
std::string valid_utf8(const std::string& in) {
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        unsigned char c = static_cast<unsigned char>(in[i]);
        size_t n = c < 0x80           ? 1
                   : (c >> 5) == 0x6  ? 2
                   : (c >> 4) == 0xe  ? 3
                   : (c >> 3) == 0x1e ? 4
                                      : 0;
        bool ok = n > 0 && i + n <= in.size() && !(n == 2 && c < 0xc2);
        for (size_t k = 1; ok && k < n; ++k)
            ok = (static_cast<unsigned char>(in[i + k]) & 0xc0) == 0x80;
        if (ok && n == 3) {
            unsigned char d = static_cast<unsigned char>(in[i + 1]);
            ok = !(c == 0xe0 && d < 0xa0) && !(c == 0xed && d >= 0xa0);
        }
        if (ok && n == 4) {
            unsigned char d = static_cast<unsigned char>(in[i + 1]);
            ok = c <= 0xf4 && !(c == 0xf0 && d < 0x90) && !(c == 0xf4 && d >= 0x90);
        }
        if (ok) {
            out.append(in, i, n);
            i += n;
        } else {
            out += "\xef\xbf\xbd";
            ++i;
        }
    }
    return out;
}
