// What an application offers to its blocks. Its plug-ins are compiled with the same header.
#pragma once

#include <quorval/block.h>
#include <quorval/pluginloader.h>

#include <functional>
#include <string>

/// What a block may use while it is created.
struct Quorval::InitTools {
    double sample_rate = 48000;
};

/// What a block may use while it runs.
struct Quorval::RuntimeTools {
    std::function<void(const std::string& text)> report;
};
