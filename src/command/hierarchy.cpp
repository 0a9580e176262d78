#include "hierarchy.h"

Machines sort_into_machines(const std::vector<Quorval::BlockInfo>& blocks)
{
    Machines machines;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const std::string& path = blocks[i].path;
        Folder* folder = &machines[blocks[i].machine];
        std::size_t begin = 0;
        for (std::size_t end = path.find('/'); end != std::string::npos;
             end = path.find('/', begin)) {
            folder = &folder->folders[path.substr(begin, end - begin)];
            folder->path = path.substr(0, end);
            begin = end + 1;
        }
        folder->blocks[path.substr(begin)] = i;
    }
    return machines;
}
