// The files of a new plug-in.
#pragma once

#include <vector>

/// A file; in both texts "@NAME@" stands for the name of the plug-in.
struct TemplateFile {
    const char* path;
    const char* content;
};

std::vector<TemplateFile> template_files();
