# The examples do here what they are there to show. The one that ends by itself after seconds may end too early for a
# machine that is emulated.
for case in lists_readers lists_no_reader exchanges_a_frame says_why_no_frame_is_exchanged talks_to_many_readers \
    overcomes_errors watches_by_polling; do
    check "$case" bash "$example_tests" "$case" "$examples" "$launcher" "$library"
done
