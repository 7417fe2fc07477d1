# The examples work on a real kernel. The example that ends after some seconds is left out, because an emulated machine
# may be too slow for it.
for case in lists_readers lists_no_reader exchanges_a_frame says_why_no_frame_is_exchanged talks_to_many_readers \
    overcomes_errors watches_by_polling; do
    check "$case" bash "$example_tests" "$case" "$examples" "$launcher" "$library"
done
