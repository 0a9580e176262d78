#include "core/store/untyped_buffer.h"

#include <quorval/config.h>
#include <quorval/pstore.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <istream>
#include <memory>
#include <sstream>
#include <string>

using Quorval::BlockConfiguration;

TEST(BinaryUntyped, BuffersAreWrittenAndRead)
{
    const quorval_test::TemporaryDirectory directory;
    const BlockConfiguration config = {{"a", 1}, {"b", "text"}, {"c", {true, false}}};
    const std::unique_ptr<std::stringbuf> buffer = quorval_test::make_untyped_buffer("");
    Quorval::POFStream out(directory.store_path(), "state");
    static_cast<std::ios&>(out).rdbuf(buffer.get());
    std::istream in(buffer.get());
    BlockConfiguration read;

    out << config;
    in >> read;

    EXPECT_EQ(read, config);
}
