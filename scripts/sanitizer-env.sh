# Sourced by the scripts that run the sanitizer build's tests: leaks are reported and
# any sanitizer report stops the test that made it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS="suppressions=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/lsan.supp:print_suppressions=0"
