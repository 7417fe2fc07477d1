#include "table.h"

#include <gtest/gtest.h>

namespace {

TEST(TableTest, ColumnsAreAsWideAsTheirLongestText) {
    Table table;
    table.add({"ID", "NAME", "TYPE"});
    table.add({"1A2B3C", "x", "D"});
    EXPECT_EQ(table.text(), "ID      NAME  TYPE\n"
                            "1A2B3C  x     D\n");
}

TEST(TableTest, LinesHaveNoBlanksAtTheirEnds) {
    Table table;
    table.add({"a", "long"});
    table.add({"b", ""});
    table.add({});
    EXPECT_EQ(table.text(), "a  long\nb\n\n");
}

} // namespace
