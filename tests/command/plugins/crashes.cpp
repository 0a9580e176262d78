// Crashes while it is loaded.
#include <quorval/pluginloader.h>

#include <csignal>

int lib_register_cpp(Quorval::IRegistry& /*registry*/)
{
    ::raise(SIGSEGV);
    return 0;
}
