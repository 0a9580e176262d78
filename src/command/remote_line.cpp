#include "remote_line.h"

using Quorval::Bus;

Bus read_bus(const std::string& text)
{
    if (text == "user") {
        return Bus::User;
    }
    if (text == "system") {
        return Bus::System;
    }
    if (text == "none") {
        return Bus::None;
    }
    throw UsageError("--bus has to be one of user, system, none, not '" + text + "'");
}

RemoteLine::RemoteLine(CommandLine& line)
{
    line.add_value("--bus", bus_, "BUS",
                   "look on this bus: user, system (default: the user's, then the system's)");
}

std::vector<Bus> RemoteLine::buses() const
{
    if (bus_.empty()) {
        return {Bus::User, Bus::System};
    }
    if (bus_ != "user" && bus_ != "system") {
        throw UsageError("--bus has to be one of user, system, not '" + bus_ + "'");
    }
    return {read_bus(bus_)};
}

std::unique_ptr<Quorval::RemoteGraph> RemoteLine::find_graph(
    const std::vector<std::string>& arguments) const
{
    if (arguments.empty()) {
        throw UsageError("the name of a graph is missing");
    }
    return std::make_unique<Quorval::RemoteGraph>(arguments.front(), buses());
}

std::string remote_status_help()
{
    return "Exit status:\n"
           "  0  done\n"
           "  1  there is no such graph, or it refuses\n"
           "  2  wrong use of the command line\n";
}
