// TOML as configurations.
#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include <quorval/runtime/diagnostic.h>
#include "description/description.h"
#include "description/file.h"
#include "description/problem.h"
#include "description/settings.h"
#include "description/toml.h"
#include "graph/diagnostics.h"
#include "graph/values.h"

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorval {

namespace {

using runtime::Problems;
using runtime::Setting;
using runtime::Source;

BlockConfiguration to_config(const std::vector<Setting>& settings)
{
    BlockConfiguration config;
    for (const Setting& setting : settings) {
        runtime::set_value(config, setting.key, setting.value);
    }
    return config;
}

void throw_problems(const Problems& problems, const Source& source)
{
    if (problems.has_errors()) {
        throw GraphError(to_diagnostics(problems, {source}));
    }
}

std::string read_text(const std::string& file, Problems& problems)
{
    runtime::GraphFile opened(file);
    std::string text = opened.error().empty() ? opened.read() : "";
    if (!opened.error().empty()) {
        problems.add_error({0, 1, 1}, "cannot read: " + opened.error());
    }
    return text;
}

}  // namespace

BlockConfiguration read_toml_file(const std::string& file)
{
    Problems problems;
    const Source source{file, read_text(file, problems), false};
    std::vector<Setting> settings;
    if (const auto tree = parse_toml(source.text, 0, problems)) {
        settings = read_settings(*tree, {0}, problems);
        restore_signs(settings, source.text);
    }
    throw_problems(problems, source);
    return to_config(settings);
}

BlockConfiguration read_toml_assignment(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw std::invalid_argument("'" + text + "' is not of the form KEY=VALUE");
    }
    const std::string key = text.substr(0, equals);
    Problems found;
    const std::vector<Setting> settings = read_value(key, text.substr(equals + 1), found);
    Problems problems;
    for (const runtime::Problem& problem : found.sorted()) {
        problems.add_error({}, problem.text);
    }
    throw_problems(problems, {key, "", true});
    return to_config(settings);
}

}  // namespace Quorval
