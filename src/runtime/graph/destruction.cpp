#include "graph/destruction.h"

#include "messages/left_open.h"

#include <algorithm>

namespace Quorval::runtime {

namespace {

/// Orders paths as nested maps of names do: "a/x" before "a-b/x".
bool is_less(const std::string& left, const std::string& right)
{
    const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(),
        [rank](char first, char second) { return rank(first) < rank(second); });
}

}  // namespace

Destruction::~Destruction()
{
    if (has_begun_) {
        context() = before_;
    }
}

void Destruction::begin()
{
    note_open_before_end();
    before_ = context();
    has_begun_ = true;
    std::sort(paths_.rbegin(), paths_.rend(), is_less);
    if (!paths_.empty()) {
        context() = {paths_.front().c_str(), "destroy", nullptr};
    }
}

void Destruction::next()
{
    if (!has_begun_) {
        return;
    }
    note_left_open_at_end(context().path);
    ++present_;
    if (present_ < paths_.size()) {
        context() = {paths_[present_].c_str(), "destroy", nullptr};
    } else {
        context() = before_;
    }
}

}  // namespace Quorval::runtime
