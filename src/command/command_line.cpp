#include "command_line.h"

#include <quorval/runtime/suggest.h>
#include "output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <memory>
#include <utility>

namespace {

constexpr std::size_t kOptionWidth = 26;

/// The help as the GNU tools have it: no headline over the usage, options without decoration.
class HelpFormatter : public CLI::Formatter {
public:
    explicit HelpFormatter(std::string usage) : usage_(std::move(usage))
    {
        column_width(kOptionWidth);
    }

    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override
    {
        return "";
    }

    std::string make_description(const CLI::App* app) const override
    {
        return "usage: " + usage_ + "\n\n" + app->get_description() + "\n";
    }

    std::string make_option_opts(const CLI::Option* option) const override
    {
        return option->get_type_size() == 0 ? "" : " " + option->get_type_name();
    }

private:
    std::string usage_;
};

bool is_option(const std::string& argument)
{
    return argument.size() > 1 && argument[0] == '-';
}

std::string without_dashes(const std::string& name)
{
    const std::size_t begin = name.find_first_not_of('-');
    return begin == std::string::npos ? "" : name.substr(begin);
}

[[noreturn]] void throw_no_value(const std::string& option)
{
    throw UsageError("'" + option + "' has no value");
}

/// What CLI11 would let pass, or refuse in words of its own. A value that is missing at the end is
/// met while it reads.
void check_values(const CLI::App& options, const Arguments& arguments)
{
    for (std::size_t i = 0; i < arguments.size() && arguments[i] != "--"; ++i) {
        const std::string name = arguments[i].substr(0, arguments[i].find('='));
        const bool is_named = name.rfind('-', 0) == 0;
        const CLI::Option* option = is_named ? options.get_option_no_throw(name) : nullptr;
        if (option == nullptr) {
            continue;
        }
        const bool is_flag = option->get_expected_max() == 0;
        const bool has_value = name != arguments[i];
        if (is_flag && has_value) {
            throw UsageError("'" + name + "' takes no value");
        }
        if (has_value && name.size() + 1 == arguments[i].size()) {
            throw_no_value(arguments[i]);
        }
        i += is_flag || has_value ? 0 : 1;
    }
}

/// The names of the options, with their dashes.
std::vector<std::string> names_of(const CLI::App& options)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : options.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

/// What was left over, without the "--" that ends the options.
std::vector<std::string> split_remaining(const CLI::App& options)
{
    std::vector<std::string> remaining = options.remaining();
    const auto end_of_options = std::find(remaining.begin(), remaining.end(), "--");
    const auto unknown = std::find_if(remaining.begin(), end_of_options, is_option);
    if (unknown != end_of_options) {
        throw_unknown("option", unknown->substr(0, unknown->find('=')), names_of(options));
    }
    if (end_of_options != remaining.end()) {
        remaining.erase(end_of_options);
    }
    return remaining;
}

}  // namespace

struct CommandLine::Impl {
    CLI::App options;
};

CommandLine::CommandLine(const HelpText& help) : impl_(std::make_unique<Impl>())
{
    CLI::App& options = impl_->options;
    options.description(help.description);
    options.formatter(std::make_shared<HelpFormatter>(help.usage));
    options.footer(help.more);
    options.set_help_flag("-h,--help", "print this text");
    // Unknown options are met here, with a suggestion. Arguments that are no options are left
    // over too: as CLI11 reads them, brackets would mean something.
    options.allow_extras();
}

CommandLine::~CommandLine() = default;

void CommandLine::add_list(const std::string& name, std::vector<std::string>& values,
                           const std::string& value_name, const std::string& description)
{
    impl_->options.add_option(name, values, description)
        ->type_name(value_name)
        ->allow_extra_args(false);
}

void CommandLine::add_value(const std::string& name, std::string& value,
                            const std::string& value_name, const std::string& description)
{
    impl_->options.add_option(name, value, description)
        ->type_name(value_name)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

void CommandLine::add_flag(const std::string& name, bool& is_set, const std::string& description)
{
    impl_->options.add_flag(name, is_set, description)->disable_flag_override();
}

void CommandLine::add_count(const std::string& name, int& count, const std::string& description)
{
    impl_->options.add_flag(name, count, description)->disable_flag_override();
}

std::optional<std::vector<std::string>> CommandLine::read(const Arguments& arguments)
{
    check_values(impl_->options, arguments);
    try {
        impl_->options.parse(Arguments(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp&) {
        write_output(impl_->options.help());
        return std::nullopt;
    } catch (const CLI::ParseError&) {
        split_remaining(impl_->options);  // an unknown option is the better reason
        throw_no_value(arguments.back());
    }
    return split_remaining(impl_->options);
}

bool CommandLine::has(const std::string& name) const
{
    return impl_->options.count(name) > 0;
}

void throw_unknown(const std::string& what, const std::string& name,
                   const std::vector<std::string>& known)
{
    std::vector<std::string> bare;
    std::transform(known.begin(), known.end(), std::back_inserter(bare), without_dashes);
    const std::string near = Quorval::find_near(without_dashes(name), bare);
    std::string text = "unknown " + what + " '" + name + "'";
    if (!near.empty()) {
        const auto found = std::find(bare.begin(), bare.end(), near);
        text += "; did you mean '" + known[std::distance(bare.begin(), found)] + "'?";
    }
    throw UsageError(text);
}

void refuse_more_than(std::size_t count, const std::vector<std::string>& arguments)
{
    if (arguments.size() > count) {
        throw UsageError("'" + arguments[count] + "' is too much");
    }
}

int run_and_close_output(const std::function<int()>& work)
{
    int status = kDone;
    try {
        status = work();
    } catch (const UsageError& error) {
        say_error(error.what());
        status = kWrongUse;
    } catch (const std::exception& error) {
        say_error(error.what());
        status = kFailed;
    }
    const bool is_written = close_output();
    return status == kDone && !is_written ? kFailed : status;
}
