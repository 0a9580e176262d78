#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <istream>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <cereal/archives/binary.hpp>
#include <cereal/details/helpers.hpp>

#include <quorval/config.h>
#include <quorval/pstore.h>

#include "config/elements.h"

namespace Quorval {

namespace {

using Count = std::uint64_t;

// Bytes that are handled at once where there is no telling how many there are.
constexpr std::size_t kStep = std::size_t{64} * 1024;

[[noreturn]] void throw_bad_state()
{
    throw std::runtime_error("Stream entered a bad state");
}

[[noreturn]] void throw_unknown_type(const std::string& key, const std::string& type_name)
{
    throw std::runtime_error("The parameter " + key + " has an unknown type: " + type_name);
}

[[noreturn]] void throw_short_write(std::size_t asked, std::size_t written)
{
    throw cereal::Exception("Failed to write " + std::to_string(asked) +
                            " bytes to output stream! Wrote " + std::to_string(written));
}

[[noreturn]] void throw_short_read(const std::string& asked, Count read)
{
    throw cereal::Exception("Failed to read " + asked + " bytes from input stream! Read " +
                            std::to_string(read));
}

/// `count * size` in decimal. The count comes from the input, so the product may not fit in 64
/// bits.
std::string decimal_product(Count count, std::size_t size)
{
    constexpr Count kHalf = 1'000'000'000;
    constexpr std::size_t kHalfDigits = 9;
    const Count low = count % kHalf * size;
    const Count high = count / kHalf * size + low / kHalf;
    if (high == 0) {
        return std::to_string(low);
    }
    const std::string digits = std::to_string(low % kHalf);
    return std::to_string(high) + std::string(kHalfDigits - digits.size(), '0') + digits;
}

/// The bytes that a content takes behind its type name.
template <class Content>
std::size_t size_of(const Content& /*scalar*/)
{
    return sizeof(Content);
}

std::size_t size_of(std::string_view text)
{
    return sizeof(Count) + text.size();
}

std::size_t size_of(const std::string& text)
{
    return size_of(std::string_view(text));
}

template <class Item>
std::size_t size_of(const std::vector<Item>& items)
{
    return sizeof(Count) + items.size() * sizeof(Item);
}

std::size_t size_of(const std::vector<std::string>& texts)
{
    return std::accumulate(
        texts.begin(), texts.end(), sizeof(Count),
        [](std::size_t size, const std::string& text) { return size + size_of(text); });
}

std::size_t size_of(const Elements& elements)
{
    std::size_t size = 0;
    for (const Entry& entry : elements) {
        size += size_of(entry.key) + size_of(kTypeNames[entry.element.value.index()]) +
                visit_content(entry.element.value,
                              [](const auto& content) { return size_of(content); });
    }
    return size;
}

/// Makes room in an empty buffer, which would otherwise grow by doubling and be copied each time.
void reserve(std::stringbuf& buffer, std::size_t size)
{
    if (buffer.view().empty()) {
        std::string room;
        room.reserve(size);
        buffer.str(std::move(room));
    }
}

/// Writes the fields of a record, each with one raw write, bools in steps.
class Writer {
public:
    explicit Writer(std::ostream& out) : archive_(out) {}

    void write(int value) { write_bytes(&value, sizeof value); }
    void write(double value) { write_bytes(&value, sizeof value); }
    void write(bool value)
    {
        const unsigned char byte = value ? 1 : 0;
        write_bytes(&byte, sizeof byte);
    }

    void write(std::string_view text)
    {
        write_count(text.size());
        write_bytes(text.data(), text.size());
    }

    template <class Number>
    void write(const std::vector<Number>& numbers)
    {
        write_count(numbers.size());
        write_bytes(numbers.data(), numbers.size() * sizeof(Number));
    }

    void write(const std::vector<std::string>& texts)
    {
        write_count(texts.size());
        for (const std::string& text : texts) {
            write(text);
        }
    }

    void write(const std::vector<bool>& bools)
    {
        write_count(bools.size());
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled before it is read
        std::array<unsigned char, kStep> bytes;
        for (auto from = bools.begin(); from != bools.end();) {
            const auto left = static_cast<std::size_t>(bools.end() - from);
            const auto to = from + static_cast<std::ptrdiff_t>(std::min(left, kStep));
            const auto end = std::copy(from, to, bytes.begin());
            write_bytes(bytes.data(), static_cast<std::size_t>(end - bytes.begin()));
            from = to;
        }
    }

private:
    void write_count(Count count) { write_bytes(&count, sizeof count); }

    void write_bytes(const void* data, std::size_t size)
    {
        archive_.saveBinary(data, static_cast<std::streamsize>(size));
    }

    cereal::BinaryOutputArchive archive_;
};

/// Reads the fields of a record. Counts come from the input and are not to be trusted: memory is
/// taken only for what is there.
class Reader {
public:
    explicit Reader(std::istream& in) : buffer_(*in.rdbuf()), archive_(in) {}

    void read(int& value) { read_object(value); }
    void read(double& value) { read_object(value); }
    void read(bool& value)
    {
        unsigned char byte = 0;
        read_object(byte);
        value = is_true(byte);
    }

    void read(std::string& text) { read_block(text); }

    template <class Number>
    void read(std::vector<Number>& numbers)
    {
        read_block(numbers);
    }

    void read(std::vector<std::string>& texts)
    {
        constexpr Count kFew = 16;
        Count left = read_count();
        texts.reserve(std::min(left, kFew));
        for (; left > 0; --left) {
            read(texts.emplace_back());
        }
    }

    void read(std::vector<bool>& bools)
    {
        const Count count = read_count();
        if (is_there(count, 1)) {
            bools.reserve(count);
        }
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled before it is read
        std::array<unsigned char, kStep> bytes;
        for (Count done = 0; done < count;) {
            const Count step = std::min<Count>(count - done, kStep);
            read_items(bytes.data(), step, count, done);
            bools.resize(done + step);
            std::transform(bytes.begin(), bytes.begin() + step,
                           bools.end() - static_cast<std::ptrdiff_t>(step), is_true);
            done += step;
        }
    }

private:
    static bool is_true(unsigned char byte) { return (byte & 1U) != 0; }

    template <class Object>
    void read_object(Object& object)
    {
        archive_.loadBinary(&object, sizeof object);
    }

    Count read_count()
    {
        Count count = 0;
        read_object(count);
        return count;
    }

    /// Reads a count, then as many items that lie one behind the other, into an empty vector or
    /// string.
    template <class Items>
    void read_block(Items& items)
    {
        constexpr std::size_t kSize = sizeof(typename Items::value_type);
        const Count count = read_count();
        const Count most = is_there(count, kSize) ? count : kStep / kSize;
        for (Count done = 0; done < count;) {
            const Count step = std::min(count - done, most);
            items.resize(done + step);
            read_items(items.data() + done, step, count, done);
            done += step;
        }
    }

    /// Reads some of `count` items with one raw read, after those that are `done`. A short read is
    /// reported as that of the whole, which the archive can do only where it is the whole.
    template <class Item>
    void read_items(Item* items, Count some, Count count, Count done)
    {
        const auto asked = static_cast<std::streamsize>(some * sizeof(Item));
        if (some == count) {
            archive_.loadBinary(items, asked);
            return;
        }
        const std::streamsize read = buffer_.sgetn(reinterpret_cast<char*>(items), asked);
        if (read != asked) {
            throw_short_read(decimal_product(count, sizeof(Item)), done * sizeof(Item) + read);
        }
    }

    /// Whether the input is known to hold `count` items of `size` bytes. Asked for large ones
    /// only: to ask costs the buffer of a file stream what it has read ahead.
    bool is_there(Count count, std::size_t size)
    {
        if (count <= kStep / size) {
            return false;
        }
        constexpr std::streamoff kFailed = -1;
        const std::streamoff here = buffer_.pubseekoff(0, std::ios::cur, std::ios::in);
        if (here == kFailed) {
            return false;
        }
        const std::streamoff end = buffer_.pubseekoff(0, std::ios::end, std::ios::in);
        buffer_.pubseekpos(here, std::ios::in);
        return end >= here && count <= static_cast<Count>(end - here) / size;
    }

    std::streambuf& buffer_;
    cereal::BinaryInputArchive archive_;
};

template <class Content>
Value read_value(Reader& reader)
{
    if constexpr (kIsScalar<Content>) {
        Content content{};
        reader.read(content);
        return content;
    } else {
        auto content = std::make_unique<Content>();
        reader.read(*content);
        return content;
    }
}

using ReadValue = Value (*)(Reader&);

// In the order of BlockConfiguration::Type.
constexpr std::array<ReadValue, kTypeNames.size()> kReadValue = {
    read_value<int>,
    read_value<bool>,
    read_value<double>,
    read_value<std::string>,
    read_value<std::vector<int>>,
    read_value<std::vector<double>>,
    read_value<std::vector<std::string>>,
    read_value<std::vector<bool>>};

/// The way to read the values of a type, null for an unknown one.
ReadValue find_reader(const std::string& type_name)
{
    const auto found = std::find(kTypeNames.begin(), kTypeNames.end(), type_name);
    return found != kTypeNames.end()
               ? kReadValue[static_cast<std::size_t>(found - kTypeNames.begin())]
               : nullptr;
}

/// Key and type name of the next record. False at the end of the data, which has no other mark
/// than that the next record is not there; what is cut off inside a header is lost with it.
bool read_header(Reader& reader, std::string& key, std::string& type_name)
{
    try {
        key.clear();
        reader.read(key);
        type_name.clear();
        reader.read(type_name);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

POFStream& operator<<(POFStream& out, const BlockConfiguration& config)
{
    const Elements& elements = BlockConfiguration::Impl::of(config).elements;
    if (out.rdbuf() == nullptr && elements.size() > 0) {
        throw_short_write(sizeof(Count), 0);
    }
    reserve(out.buffer_, size_of(elements));
    Writer writer(out);
    for (const Entry& entry : elements) {
        writer.write(entry.key);
        writer.write(kTypeNames[entry.element.value.index()]);
        visit_content(entry.element.value,
                      [&writer](const auto& content) { writer.write(content); });
    }
    return out;
}

std::istream& operator>>(std::istream& in, BlockConfiguration& config)
{
    if (!in.good()) {
        throw_bad_state();
    }
    Reader reader(in);
    std::string key;
    std::string type_name;
    while (read_header(reader, key, type_name)) {
        const ReadValue read = find_reader(type_name);
        if (read == nullptr) {
            throw_unknown_type(key, type_name);
        }
        BlockConfiguration::Impl::of(config).set(key, read(reader));
        if (!in.good()) {
            throw_bad_state();
        }
    }
    return in;
}

}  // namespace Quorval
