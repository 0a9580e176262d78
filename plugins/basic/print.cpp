// Print: shows values of any of the standard types.
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "blocks.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace basic {

using Quorval::BlockConfiguration;

namespace {

struct PrintSettings {
    std::string type = "double";
    std::string prefix;
};

const Quorval::Settings<PrintSettings>& print_settings()
{
    static const auto kSettings =
        Quorval::Settings<PrintSettings>("Prints each value as a line on standard output.")
            .add("type", &PrintSettings::type, "of the values")
            .choices({"bool", "int32", "int64", "float", "double", "string", "int32-vector",
                      "int64-vector", "float-vector", "double-vector"})
            .add("prefix", &PrintSettings::prefix, "what stands in front of each value");
    return kSettings;
}

void write(std::ostream& out, bool value)
{
    out << (value ? "true" : "false");
}

void write(std::ostream& out, const std::string& value)
{
    out << value;
}

/// The shortest form that reads back.
template <class Number>
void write(std::ostream& out, Number value)
{
    constexpr std::size_t kLongest = 32;
    std::array<char, kLongest> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value);
    out.write(text.data(), end.ptr - text.data());
}

template <class Number>
void write(std::ostream& out, const std::vector<Number>& values)
{
    out << '[';
    for (const Number& value : values) {
        out << (&value == values.data() ? "" : ", ");
        write(out, value);
    }
    out << ']';
}

class Print : public Quorval::Block {
public:
    Print(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(print_settings().read(config))
    {
        add_port<bool, std::int32_t, std::int64_t, float, double, std::string,
                 std::vector<std::int32_t>, std::vector<std::int64_t>, std::vector<float>,
                 std::vector<double>>();
    }

    // Standard output belongs to all blocks.
    void start() override { get_tools().keep_place(); }

    bool run() override
    {
        std::cout << settings_.prefix;
        write_value_();
        std::cout << std::endl;
        if (!std::cout) {
            throw std::runtime_error("cannot write to standard output");
        }
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = print_settings().apply(settings_, override);
    }

private:
    /// Adds the port for that one of the types which the settings name.
    template <class... Types>
    void add_port()
    {
        (add_port_if<Types>(), ...);
    }

    template <class T>
    void add_port_if()
    {
        if (settings_.type == Quorval::PortType<T>::name()) {
            write_value_ = [in = Quorval::add_input<T>(*this, "in")] {
                write(std::cout, in->value());
            };
        }
    }

    PrintSettings settings_;
    std::function<void()> write_value_;
};

}  // namespace

void register_print(Quorval::IRegistry& registry)
{
    Quorval::register_block<Print>(registry, "Print", print_settings());
}

}  // namespace basic
