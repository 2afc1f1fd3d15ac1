// Parsing and printing of threshold ranges.
#include "range.h"

#include <cstdio>
#include <cstdlib>

namespace {

std::string number_text(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.15g", value);
    return text;
}

}  // namespace

// Digits with at most one '.': no sign, no exponent, no "nan" or "inf", and
// short enough to print back as given.
bool parse_decimal(const std::string& text, double& value) {
    if (text.empty() || text.size() > 15 || text == ".") return false;
    int dots = 0;
    for (char c : text) {
        if (c == '.') ++dots;
        else if (c < '0' || c > '9') return false;
    }
    if (dots > 1) return false;
    value = strtod(text.c_str(), nullptr);
    return true;
}

bool parse_range(const std::string& text, Range& range) {
    Range r;
    r.set = true;
    std::string rest = text;
    if (!rest.empty() && rest[0] == '@') {
        r.inside = true;
        rest.erase(0, 1);
    }
    size_t colon = rest.find(':');
    if (colon == std::string::npos) {
        r.bounded_above = true;
        if (!parse_decimal(rest, r.end)) return false;
    } else {
        std::string start = rest.substr(0, colon), end = rest.substr(colon + 1);
        if (start == "~") r.bounded_below = false;
        else if (!parse_decimal(start, r.start)) return false;
        r.bounded_above = !end.empty();
        if (r.bounded_above && !parse_decimal(end, r.end)) return false;
    }
    if (r.bounded_below && r.bounded_above && r.start > r.end) return false;
    range = r;
    return true;
}

std::string Range::text() const {
    if (!set) return "";
    std::string out = inside ? "@" : "";
    if (!bounded_below) out += "~:";
    else if (start != 0 || !bounded_above) out += number_text(start) + ":";
    if (bounded_above) out += number_text(end);
    return out;
}
