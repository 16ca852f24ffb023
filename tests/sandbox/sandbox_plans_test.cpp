// A find reads the POs that its filter may match, and not all of its data selection: SQLite's plan
// of each statement seeks by the fields that the filter gives. A plan that only narrows to the data
// selection would still be a SEARCH, hence the test looks for the fields.
#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>

#include "sandbox/store/pos.h"

namespace {

using Values = std::map<size_t, const char*>;  ///< by field, which count from 1

constexpr size_t kClient = 6, kPolicy = 7, kImage = 8, kFolder = 9, kName = 10, kSize = 16;

struct Row {
    const char* name;
    Values values;
    const char* seek;  ///< the terms of the index that each statement seeks by
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

const Row kRows[] = {
    {"Name", {{kName, "a"}}, "ds=? AND f10=?"},
    {"NamePrefix", {{kName, "a*"}}, "ds=? AND f10>? AND f10<?"},
    {"NameWithWildcardInside", {{kName, "a?b*"}}, "ds=? AND f10>? AND f10<?"},
    {"Folder", {{kFolder, "/a"}}, "ds=? AND f9=?"},
    {"FolderPrefix", {{kFolder, "/a/*"}}, "ds=? AND f9>? AND f9<?"},
    {"FolderAndName", {{kFolder, "/a"}, {kName, "b"}}, "ds=? AND f9=? AND f10=?"},
    {"FolderAndNamePrefix", {{kFolder, "/a"}, {kName, "b*"}}, "ds=? AND f9=? AND f10>? AND f10<?"},
    {"FolderPrefixAndName", {{kFolder, "/a/*"}, {kName, "b"}}, "ds=? AND f10=?"},
    {"Client", {{kClient, "c"}}, "ds=? AND f6=?"},
    {"ClientPrefix", {{kClient, "c*"}}, "ds=? AND f6>? AND f6<?"},
    {"Image", {{kClient, "c"}, {kPolicy, "p"}, {kImage, "i"}}, "ds=? AND f6=? AND f7=? AND f8=?"},
    {"FolderWithSize", {{kFolder, "/a"}, {kSize, "5"}}, "ds=? AND f9=?"},
    {"ClientAndName", {{kClient, "c"}, {kName, "a"}}, "ds=? AND f10=? AND f6=?"},
    // No index begins with what these give.
    {"NameWithLeadingWildcard", {{kName, "*a"}}, "ds=?"},
    {"ImageAlone", {{kImage, "i"}}, "ds=?"},
    {"Everything", {}, "ds=?"},
};

std::string filterOf(const Values& values) {
    std::string text;
    for (size_t field = 1; field <= sandbox::kPOFields; ++field) {
        const bool zero = field == 1 || field == 2;
        const bool number = field == 4 || field == 5 || (field >= 16 && field <= 25);
        const char* any = zero ? "0" : field == 3 ? "" : number ? "-1" : "*";
        const auto given = values.find(field);
        text += std::string(field == 1 ? "" : "|") + (given != values.end() ? given->second : any);
    }
    return text;
}

class Plans : public testing::TestWithParam<Row> {};

TEST_P(Plans, SeekByTheFieldsOfTheFilter) {
    sandbox::Database database("");
    const sandbox::POStore pos(database);
    const std::string seek = std::string("(") + GetParam().seek + ")";
    for (const std::string& sql : sandbox::POStore::statements(filterOf(GetParam().values))) {
        sandbox::Query plan = database.query(database.kept("EXPLAIN QUERY PLAN " + sql));
        ASSERT_TRUE(plan.step());
        const std::string first(plan.text(3));  // others tell how what was found is sorted
        EXPECT_TRUE(first.starts_with("SEARCH pos ") && first.ends_with(seek)) << first << sql;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Plans, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

}  // namespace
