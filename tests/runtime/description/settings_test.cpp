#include "description/settings.h"

#include <gtest/gtest.h>

using Quorval::runtime::Assignment;
using Quorval::runtime::Place;
using Quorval::runtime::Problems;
using Quorval::runtime::read_assignment;

TEST(ReadAssignment, StandsInNoLineAndNoColumn)
{
    constexpr std::uint32_t kSource = 3;
    Problems problems;

    const std::vector<Assignment> assignments = read_assignment("a.k=1", kSource, problems);
    read_assignment("a.k=[]", kSource, problems);

    ASSERT_EQ(assignments.size(), 1U);
    EXPECT_EQ(assignments[0].setting.key_place, (Place{kSource, 0, 0}));
    EXPECT_EQ(assignments[0].setting.value_place, (Place{kSource, 0, 0}));
    ASSERT_EQ(problems.sorted().size(), 1U);
    EXPECT_EQ(problems.sorted()[0].text, "'k' is an empty list");
    EXPECT_EQ(problems.sorted()[0].place, (Place{kSource, 0, 0}));
}
