#include <quorval/config.h>
#include "config/impl.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace Quorval {

namespace {

[[noreturn]] void throw_beyond_end()
{
    throw std::runtime_error("Iteration beyond end of the sequence");
}

}  // namespace

class BlockConfiguration::ConfigIteratorImpl final : public BlockConfiguration::Iterator {
public:
    ConfigIteratorImpl(const Elements& elements, const std::string& prefix)
        : prefix_(prefix), position_(elements.lower_bound(prefix))
    {
        look();
    }

    bool is_end() override { return position_.is_end(); }

    void advance() override
    {
        current();
        ++position_;
        look();
    }

    const std::string& key() override { return current().key; }

    int getInt() override { return read<int>(); }
    bool getBool() override { return read<bool>(); }
    double getDouble() override { return read<double>(); }
    float getFloat() override { return static_cast<float>(read<double>()); }
    const std::string& getString() override { return read<std::string>(); }
    const std::vector<int>& getIntVector() override { return read<std::vector<int>>(); }
    const std::vector<double>& getDoubleVector() override { return read<std::vector<double>>(); }
    std::vector<float> getFloatVector() override
    {
        const auto& items = read<std::vector<double>>();
        return convert_items<float>(items);
    }
    const std::vector<std::string>& getStringVector() override
    {
        return read<std::vector<std::string>>();
    }
    const std::vector<bool>& getBoolVector() override { return read<std::vector<bool>>(); }

private:
    // Whether it is the end is asked of the element, not kept as a position: the one behind the
    // prefix may come and go.
    // Held by ConfigIterator.NeverLeavesThePrefixForAnElementThatIsAddedBehindIt.
    void look()
    {
        if (!prefix_.empty() && !position_.is_end() && !position_->key.starts_with(prefix_)) {
            position_.end();
        }
    }

    const Entry& current() const
    {
        if (position_.is_end()) {
            throw_beyond_end();
        }
        return *position_;
    }

    /// The content of the current element. It is consumed even if it turns out to have another
    /// type: to look at it this way is to know about it.
    /// Held by ConfigIterator.ConsumesAnElementOfAnotherType.
    template <class T>
    const T& read()
    {
        const Entry& element = current();
        element.consumed = true;
        if constexpr (kIsInside<T>) {
            return std::get<T>(element.value);
        } else {
            return *std::get<std::unique_ptr<T>>(element.value);
        }
    }

    std::string prefix_;
    Elements::Position position_;
};

BlockConfiguration::Iterator::Iterator() = default;

BlockConfiguration::Iterator::~Iterator() = default;

std::unique_ptr<BlockConfiguration::Iterator> BlockConfiguration::iterate(
    const std::string& prefix) const
{
    return std::make_unique<ConfigIteratorImpl>(Impl::of(*this).elements, prefix);
}

}  // namespace Quorval
