#include <quorval/config.h>
#include <quorval/pstore.h>

#include <stdexcept>
#include <string>

namespace Quorval {

namespace {

void check_configured(const std::string& path)
{
    if (path.empty()) {
        throw std::runtime_error("PStore path is not configured");
    }
}

}  // namespace

PStore::PStore() = default;

PStore::PStore(const std::string& path) : path_(path) {}

void PStore::set_path(const std::string& path)
{
    path_ = path;
}

std::string PStore::get_path()
{
    return path_;
}

PIFStream PStore::ifstream(const std::string& name)
{
    check_configured(path_);
    return PIFStream(path_, name);
}

POFStream PStore::ofstream(const std::string& name)
{
    check_configured(path_);
    return POFStream(path_, name);
}

BlockConfiguration PStore::load(const std::string& name)
{
    BlockConfiguration config;
    PIFStream in = ifstream(name);
    in >> config;
    in.close();
    return config;
}

void PStore::store(const std::string& name, const BlockConfiguration& config)
{
    POFStream out = ofstream(name);
    out << config;
    out.close();
}

}  // namespace Quorval
