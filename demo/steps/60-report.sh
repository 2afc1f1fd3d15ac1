# The monitoring report of the same server, after the clean-up above.
say "kelvo-report gives monitoring the same figures in one read-only pass: as" \
    "JSON (the default), as Prometheus metrics or as one check line."
printf '$ kelvo-report --format=check\n'
"$KELVO_REPORT" --format=check || true
printf '\n$ kelvo-report\n'
"$KELVO_REPORT"
printf '\n'
