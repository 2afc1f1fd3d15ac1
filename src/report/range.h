// Threshold ranges of the monitoring-plugin convention: "N" (0 to N), "N:"
// (N and above), "~:N" (N and below), "N:M", and any of them after "@" to
// alert inside the range instead of outside. Ends are inclusive.
#ifndef KELVO_REPORT_RANGE_H
#define KELVO_REPORT_RANGE_H

#include <string>

struct Range {
    bool set = false;  // an unset range never alerts
    bool inside = false;
    bool bounded_below = true;  // false for "~"
    bool bounded_above = false;
    double start = 0;
    double end = 0;

    bool alerts(double value) const {
        if (!set) return false;
        bool within = (!bounded_below || value >= start) && (!bounded_above || value <= end);
        return within == inside;
    }
    // The range again, in the same syntax; empty when unset.
    std::string text() const;
};

// Parses |text| into |range|. Ends are plain non-negative decimal numbers
// (the figures checked are never negative); start must not exceed end.
bool parse_range(const std::string& text, Range& range);
// A plain non-negative decimal number, as a range's ends are written.
bool parse_decimal(const std::string& text, double& value);

#endif
