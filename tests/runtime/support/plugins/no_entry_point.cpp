// A plug-in without an entry point.
extern "C" __attribute__((visibility("default"))) int quorval_test_answer()
{
    return 42;
}
