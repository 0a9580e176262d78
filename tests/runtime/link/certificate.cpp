#include "runtime/link/certificate.h"

#include "support/process.h"

#include <gtest/gtest.h>

namespace quorval_test {

void make_certificate(const std::string& path, const std::vector<std::string>& more)
{
    ProcessOptions options;
    options.command = {"/usr/bin/openssl",
                       "req",
                       "-x509",
                       "-newkey",
                       "ec",
                       "-pkeyopt",
                       "ec_paramgen_curve:prime256v1",
                       "-nodes",
                       "-subj",
                       "/CN=" + path.substr(path.rfind('/') + 1),
                       "-keyout",
                       path + ".key",
                       "-out",
                       path + ".pem"};
    options.command.insert(options.command.end(), more.begin(), more.end());
    const ProcessResult result = run_process(options);
    EXPECT_EQ(result.status, 0) << result.err;
}

}  // namespace quorval_test
