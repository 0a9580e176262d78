#include "running.h"

#include "command.h"
#include "graph_line.h"

void add_verbosity(CommandLine& line, Verbosity& verbosity)
{
    line.add_flag("-q,--quiet", verbosity.is_quiet, "write errors alone");
    line.add_count("-v,--verbose", verbosity.verbose_count, "write notes too; twice: details");
}

void add_machines(CommandLine& line, std::string& machine, bool& is_local)
{
    add_machine(line, machine);
    line.add_flag("--local", is_local, "run the blocks of all machines here, without a broker");
}

void set_machine(Quorval::GraphOptions& options, const std::string& machine, bool is_local)
{
    if (is_local && !machine.empty()) {
        throw UsageError("--machine and --local exclude each other");
    }
    options.machine = machine;
    options.is_local = is_local;
}

loglevel to_level(const Verbosity& verbosity)
{
    if (verbosity.is_quiet) {
        return LOGLEVEL_ERROR;
    }
    return verbosity.verbose_count == 0   ? LOGLEVEL_WARNING
           : verbosity.verbose_count == 1 ? LOGLEVEL_INFO
                                          : LOGLEVEL_DEBUG;
}

int to_status(Quorval::RunResult result)
{
    switch (result) {
        case Quorval::RunResult::Done:
            return kDone;
        case Quorval::RunResult::Failed:
            return kFailed;
        case Quorval::RunResult::NoSource:
        case Quorval::RunResult::WrongObjects:
            return kWrongGraph;
    }
    return kFailed;
}
