# The monitoring report of the same server, after the clean-up above.
say "kelvo-report gives monitoring the same figures in one read-only pass: as" \
    "JSON (the default), as Prometheus metrics for the node exporter, or as a" \
    "monitoring-plugin check: one status line naming the worst problem, with" \
    "performance data, then every problem on a line of its own, worst first."
printf '$ kelvo-report --format=check --timeout=10\n'
"$KELVO_REPORT" --format=check --timeout=10 || true
metrics="$ROOT/kelvo.prom"
printf '\n$ kelvo-report --format=prometheus --output=%s\n' "$metrics"
"$KELVO_REPORT" --format=prometheus --output="$metrics"
printf "\$ grep -E '^kelvo_(report_success|space_used_bytes|volume_leak)' %s\n" "$metrics"
grep -E '^kelvo_(report_success|space_used_bytes|volume_leak)' "$metrics"
printf '\n'
