#include "command/command_test.h"

#include <optional>
#include <sstream>

namespace quorval_test {

namespace {

std::vector<std::string> split_words(const std::string& list)
{
    std::vector<std::string> words;
    std::istringstream stream(list);
    for (std::string word; std::getline(stream, word, ' ');) {
        words.push_back(word);
    }
    return words;
}

std::string lines_without_emulator(const std::string& text)
{
    std::string rest;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind("qemu: ", 0) != 0) {
            rest += line + "\n";
        }
    }
    return rest;
}

}  // namespace

void CommandTest::write(const std::string& name, const std::string& text) const
{
    write_file(work_.path() / name, text);
}

ProcessOptions CommandTest::command(const std::vector<std::string>& arguments) const
{
    ProcessOptions options;
    options.command = split_words(QUORVAL_EMULATOR);
    options.command.emplace_back(QUORVAL_COMMAND);
    options.command.insert(options.command.end(), arguments.begin(), arguments.end());
    options.directory = directory();
    options.environment = {{"QUORVAL_PLUGIN_DIR", QUORVAL_TEST_PLUGIN_DIR},
                           {"QUORVAL_PLUGIN_PATH", std::nullopt},
                           {"STATE_DIRECTORY", std::nullopt},
                           {"JOURNAL_STREAM", std::nullopt},
                           {"NO_COLOR", std::nullopt},
                           {"TERM", "xterm"}};
    return options;
}

ProcessResult CommandTest::run(const std::vector<std::string>& arguments) const
{
    return without_emulator(run_process(command(arguments)));
}

ProcessResult CommandTest::without_emulator(ProcessResult result)
{
    if (*QUORVAL_EMULATOR != '\0') {
        result.err = lines_without_emulator(result.err);
    }
    return result;
}

void CommandTest::set_variable(ProcessOptions& options, const std::string& name,
                               const std::string& value)
{
    if (*QUORVAL_EMULATOR == '\0') {
        options.environment.emplace_back(name, value);
    } else {
        options.command.insert(options.command.begin() + 1, {"-E", name + "=" + value});
    }
}

void expect_result(const ProcessResult& result, int status, const std::string& out,
                   const std::string& err)
{
    EXPECT_EQ(result.status, status) << "signal " << result.signal;
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, err);
}

void expect_wrong_use(const ProcessResult& result, const std::string& text)
{
    expect_result(result, 2, "", "quorval: error: " + text + "\n");
}

}  // namespace quorval_test
