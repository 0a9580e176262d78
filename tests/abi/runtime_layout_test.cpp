// Records and services of the runtime, which applications and plug-ins have compiled in: the places
// of fields and of virtual operations.
#include <quorval/runtime/config_files.h>
#include <quorval/runtime/diagnostic.h>
#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>
#include <quorval/runtime/plugin.h>
#include <quorval/runtime/recording.h>
#include <quorval/runtime/remote.h>
#include <quorval/runtime/testing.h>
#include <quorval/runtime/tools.h>
#include "abi/slots.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

using namespace Quorval;
using quorval_test::slot_of;

namespace {

using Places = std::vector<std::size_t>;

/// How far from its beginning a record has these fields, and behind them its size.
template <class Record, class... Fields>
Places places_in(Fields Record::*... fields)
{
    const Record record{};
    const auto* begin = reinterpret_cast<const char*>(&record);
    return {static_cast<std::size_t>(reinterpret_cast<const char*>(&(record.*fields)) - begin)...,
            sizeof(Record)};
}

TEST(RuntimeLayout, OfGraphOptions)
{
    using O = GraphOptions;

    EXPECT_EQ(places_in<O>(&O::files, &O::assignments, &O::plugin_path, &O::state_directory,
                           &O::is_dry, &O::takes_signals, &O::threads, &O::run_for, &O::on_progress,
                           &O::times_runs, &O::trace_file, &O::tells_manager, &O::record_file,
                           &O::record_outputs, &O::replay_file, &O::replays_fast, &O::keeps_plugins,
                           &O::machine, &O::is_local, &O::bus),
              (Places{0,   24,  48,  72,  104, 105, 108, 112, 120, 152, 160,
                      192, 200, 232, 256, 288, 289, 296, 328, 332, 336}));
}

TEST(RuntimeLayout, OfWhatAGraphTellsOfItself)
{
    using B = BlockInfo;
    using C = ConnectionInfo;
    using S = BlockStatistics;
    using L = LinkStatistics;

    EXPECT_EQ(places_in<B>(&B::path, &B::type, &B::inports, &B::outports, &B::fdports, &B::config,
                           &B::machine),
              (Places{0, 32, 64, 112, 160, 208, 216, 248}));
    EXPECT_EQ(
        places_in<C>(&C::from_path, &C::output, &C::to_path, &C::input, &C::type, &C::is_delayed),
        (Places{0, 32, 64, 96, 128, 160, 168}));
    EXPECT_EQ(
        places_in<S>(&S::path, &S::runs, &S::failures, &S::total, &S::longest, &S::percentile_99),
        (Places{0, 32, 40, 48, 56, 64, 72}));
    EXPECT_EQ(places_in<L>(&L::output, &L::comes_in, &L::values, &L::bytes, &L::lost, &L::gaps,
                           &L::duplicates, &L::longest_queue),
              (Places{0, 32, 40, 48, 56, 64, 72, 80, 88}));
}

TEST(RuntimeLayout, OfWhatIsReadFromFiles)
{
    using D = Diagnostic;
    using C = StoreContent;
    using N = PluginNote;
    using F = PluginFile;
    using P = BlockPorts;
    using I = RecordingInfo;
    using O = RecordingInfo::Output;

    EXPECT_EQ(places_in<D>(&D::file, &D::line, &D::column, &D::is_error, &D::text, &D::source_line),
              (Places{0, 32, 36, 40, 48, 80, 112}));
    EXPECT_EQ(places_in<C>(&C::config, &C::damage), (Places{0, 8, 40}));
    EXPECT_EQ(places_in<N>(&N::interface, &N::standard_library, &N::compiler, &N::version),
              (Places{0, 8, 40, 72, 104}));
    EXPECT_EQ(places_in<F>(&F::name, &F::file, &F::problem), (Places{0, 32, 64, 96}));
    EXPECT_EQ(places_in<P>(&P::inports, &P::outports, &P::fdports, &P::dbus),
              (Places{0, 48, 96, 144, 168}));
    EXPECT_EQ(places_in<I>(&I::graph, &I::begin, &I::duration, &I::waves, &I::missing_waves,
                           &I::is_whole, &I::outputs),
              (Places{0, 32, 40, 48, 56, 64, 72, 96}));
    EXPECT_EQ(places_in<O>(&O::path, &O::port, &O::type, &O::values, &O::bytes),
              (Places{0, 32, 64, 96, 104, 112}));
}

TEST(RuntimeLayout, OfWhatRunsElsewhere)
{
    using G = RunningGraph;

    EXPECT_EQ(places_in<G>(&G::name, &G::bus), (Places{0, 32, 40}));
}

TEST(RuntimeLayout, OfWhatCreateFunctionsGet)
{
    using T = InitTools;

    EXPECT_EQ(places_in<T>(&T::graph, &T::is_dry), (Places{0, 32, 40}));
}

TEST(RuntimeLayout, ClassesAreAPointerToTheirPrivateRecord)
{
    EXPECT_EQ(sizeof(Graph), sizeof(void*));
    EXPECT_EQ(sizeof(Messages), sizeof(void*));
    EXPECT_EQ(sizeof(PluginView), sizeof(void*));
    EXPECT_EQ(sizeof(RemoteGraph), sizeof(void*));
    EXPECT_EQ(sizeof(Harness), sizeof(void*));
}

TEST(RuntimeLayout, ServicesStandAtTheirPlaces)
{
    EXPECT_EQ(slot_of(&RuntimeTools::path), 0);
    EXPECT_EQ(slot_of(&RuntimeTools::now), 1);
    EXPECT_EQ(slot_of(&RuntimeTools::request_run), 2);
    EXPECT_EQ(slot_of(&RuntimeTools::run_at), 3);
    EXPECT_EQ(slot_of(&RuntimeTools::progress), 4);
    EXPECT_EQ(slot_of(&RuntimeTools::stop), 5);
    EXPECT_EQ(slot_of(&RuntimeTools::loop), 6);
    EXPECT_EQ(slot_of(&RuntimeTools::bus), 7);
    EXPECT_EQ(slot_of(&RuntimeTools::keep_place), 8);
    EXPECT_EQ(sizeof(RuntimeTools), sizeof(void*));
}

}  // namespace
