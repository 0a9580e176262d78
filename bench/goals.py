"""What the table of results shows: the cases in their order, their peers and their goals."""

from dataclasses import dataclass


@dataclass(frozen=True)
class Row:
    """One line of the table: a case of the library against one peer.

    case   the name that the benchmark program gives it
    title  what is measured, for readers
    peer   the side that the library is compared with
    goal   the ratio to stay below, None for a line that is there for information
    theirs the case that the peer is measured with, where it is another one
    """

    case: str
    title: str
    peer: str
    goal: float | None = None
    theirs: str | None = None


# The Debian package of each peer, named where one is missing, and of the broker that some speak
# with. The others need none.
PACKAGES = {
    "nlohmann": "nlohmann-json3-dev",
    "property_tree": "libboost-dev",
    "tomlplusplus": "libtomlplusplus-dev",
    "cereal": "libcereal-dev",
    "protobuf": "libprotobuf-dev",
    "sqlite": "libsqlite3-dev",
    "glib": "libglib2.0-dev",
    "gstreamer": "libgstreamer1.0-dev",
    "class_loader": "libclass-loader-dev",
    "onetbb": "libtbb-dev",
    "zeromq": "cppzmq-dev",
    "mosquitto": "mosquitto",
}


def _others(case, title, *peers):
    return [Row(case, title, peer) for peer in peers]


def _settings(case, title, goal):
    return [Row(f"{case}/{count}", f"{title}, {count} elements", "map", goal)
            for count in (30, 100, 500)]


def _small(case, title, goal):
    """Small configurations of mixed elements against a std::map behind the same calls."""
    return [Row(f"{case}/{size}", f"{title}, {size} mixed", "map", goal) for size in (30, 100, 500)]


def _link(case, title):
    """Values from one process to another, against clients of the same broker and sockets. A rate
    of 0.8 is a time of 1.25."""
    return [row for size, name in ((64, "64 B"), (1024, "1 KiB"), (65536, "64 KiB"))
            for row in (Row(f"{case}/{size}", f"{title}, {name}", "by_hand",
                            1.25 if size == 1024 and "single" not in case else None),
                        Row(f"{case}/{size}", f"{title}, {name}", "zeromq"))]


def _record(case, title, peer):
    return [Row(f"{case}/{size}", f"{title}, {name}", peer)
            for size, name in ((64, "64 B"), (1024, "1 KiB"))]


_TREES = ("property_tree", "tomlplusplus", "protobuf")

ROWS = [
    Row("get_int/100", "`getInt`, 100 elements", "nlohmann", 0.6),
    *_others("get_int/100", "`getInt`, 100 elements", *_TREES, "glib"),
    Row("get_int/1000", "`getInt`, 1,000 elements", "nlohmann"),
    Row("get_int/10000", "`getInt`, 10,000 elements", "nlohmann", 0.5),
    *_others("get_int/10000", "`getInt`, 10,000 elements", *_TREES, "glib"),
    Row("get_int/100000", "`getInt`, 100,000 elements", "nlohmann"),
    Row("get_int_long_keys/100", "`getInt`, 100 elements, long keys", "nlohmann", 0.6),
    Row("get_int_long_keys/10000", "`getInt`, 10,000 elements, long keys", "nlohmann", 0.8),
    *_small("small_literal", "literal", 1.6),
    *_small("small_set", "`set`, shuffled", 1.1),
    *_small("small_get", "get", 0.8),
    *_small("small_copy", "copy", 1.1),
    *_small("small_first_walk", "first walk", 1.5),
    *_small("small_walk", "later walk", 1.2),
    *_small("small_destroy", "destroy", 1.0),
    *_small("heap_small", "heap per element", 0.9),
    *_small("fresh", "instructions of a fresh process", 1.2),
    Row("subtree", "`getSubtree` of one group of 10,000", "map", 0.25),
    Row("delete", "`delete_element` of one group of 10,000", "map", 0.25),
    Row("build_shuffled", "build 10,000, shuffled", "nlohmann", 0.9),
    *_others("build_shuffled", "build 10,000, shuffled", *_TREES, "glib"),
    Row("build_shuffled_and_walk", "build 10,000, shuffled, and walk", "nlohmann"),
    Row("build_sorted", "build 10,000, sorted", "nlohmann", 0.9),
    Row("build_shuffled_long_keys", "build 10,000, shuffled, long keys", "nlohmann", 1.0),
    Row("build_sorted_long_keys", "build 10,000, sorted, long keys", "nlohmann", 0.9),
    Row("copy", "copy 10,000", "nlohmann", 0.85),
    Row("copy_long_keys", "copy 10,000, long keys", "nlohmann", 0.85),
    *_others("copy", "copy 10,000", *_TREES),
    Row("equal", "`==`, 10,000", "nlohmann", 0.9),
    *_others("equal", "`==`, 10,000", *_TREES),
    Row("merge", "`+=`, 10,000", "nlohmann", 0.85),
    Row("merge_long_keys", "`+=`, 10,000, long keys", "nlohmann", 0.85),
    Row("diff", "`diff`, 10,000", "nlohmann", 0.14),
    Row("walk", "walk by `iterate`", "nlohmann", 1.5),
    *_others("walk", "walk by `iterate`", "calls"),
    Row("children_read", "children by `iterate_subtree`, reading a field", "nlohmann", 4),
    Row("children_names", "children by `iterate_subtree`, names alone", "nlohmann"),
    Row("heap_per_element", "heap per element", "nlohmann", 1.0),
    *_others("heap_per_element", "heap per element", *_TREES, "glib"),
    Row("heap_per_element_long_keys", "heap per element, long keys", "nlohmann", 1.1),
    Row("text", "text form, 10,000", "nlohmann", 0.8),
    Row("binary_mixed_write", "binary form, 10,000 mixed: write", "cereal", 0.7),
    *_others("binary_mixed_write", "binary form, 10,000 mixed: write", "protobuf"),
    Row("binary_mixed_read", "binary form, 10,000 mixed: read", "cereal", 1.1),
    *_others("binary_mixed_read", "binary form, 10,000 mixed: read", "protobuf"),
    Row("binary_doubles_write", "binary form, 100 MB of doubles: write", "cereal", 0.7),
    Row("binary_doubles_read", "binary form, 100 MB of doubles: read", "cereal", 1.1),
    Row("binary_ints_write", "binary form, 100 MB of ints: write", "cereal", 0.7),
    Row("binary_ints_read", "binary form, 100 MB of ints: read", "cereal", 1.1),
    Row("binary_bools_write", "binary form, 100 million bools: write", "cereal", 0.2),
    Row("binary_bools_read", "binary form, 100 million bools: read", "cereal", 0.06),
    Row("peak_load", "peak memory of loading 100 MB, beyond the result", "file", 0.1),
    *_others("peak_load", "peak memory of loading 100 MB, beyond the result", "cereal"),
    Row("peak_store", "peak memory of storing 100 MB", "file", 1.15),
    Row("store_1k", "`PStore::store`, 1 KB", "system", 1.2),
    *_others("store_1k", "`PStore::store`, 1 KB", "sqlite"),
    Row("store_1m", "`PStore::store`, 1 MB", "system", 2.0),
    *_others("store_1m", "`PStore::store`, 1 MB", "sqlite"),
    Row("store_100m", "`PStore::store`, 100 MB", "system", 1.8),
    Row("store_small_1m", "`PStore::store`, 1 MB of small elements", "system", 3.2),
    Row("load_1k", "`PStore::load`, 1 KB", "system", 4),
    *_settings("store_settings", "`PStore::store`", 1.1),
    *_settings("load_settings", "`PStore::load`", 1.2),
    Row("create_members/1000", "create 1,000 members", "gstreamer", 0.08),
    *_others("create_members/1000", "create 1,000 members", "class_loader"),
    # Adding to its bin takes GStreamer time that grows with what is in it. That is not what is
    # compared, so the library has to be as fast at any size as the peer is at the smallest.
    Row("create_members/10000", "create 10,000 members, peer at 1,000", "gstreamer", 0.08,
        "create_members/1000"),
    Row("create_members/100000", "create 100,000 members, peer at 1,000", "gstreamer", 0.08,
        "create_members/1000"),
    Row("create_members/10000", "create 10,000 members, peer at 10,000", "gstreamer"),
    *_others("create_members/100000", "create 100,000 members", "class_loader"),
    Row("add_connection/1000", "`add_connection`, 1,000", "gstreamer", 0.3),
    Row("add_connection/10000", "`add_connection`, 10,000", "gstreamer", 0.3),
    Row("add_connection/100000", "`add_connection`, 100,000", "gstreamer", 0.3),
    Row("nested_connections/1", "`get_connections` of 1,000, 1 level", "copy", 1.7),
    Row("nested_connections/64", "`get_connections` of 1,000, 64 levels", "copy", 1.7),
    Row("bytes_per_member", "heap per member and connection", "gstreamer", 0.3),
    Row("update_reset", "`update` and `reset`", "by_hand", 3),
    *_others("update_reset", "`update` and `reset`", "calls"),
    Row("has_triggered_port", "`has_triggered_port`, 8 ports", "by_hand", 2.5),
    Row("step_of_a_run", "a step of a run: `update`, `run`, resets", "by_hand"),
    Row("event_port", "event port: fire and reset", "system", 1.08),
    Row("dropped_line", "a dropped log line", "system", 1.08),
    *_others("dropped_line", "a dropped log line", "glib"),
    Row("plugin_load", "load a plug-in", "system", 1.1),
    *_others("plugin_load", "load a plug-in", "class_loader"),
    Row("plugin_load_many", "load a hundred plug-ins", "system", 1.3),
    Row("bus_configure", "a change over the bus, peer: a call that does nothing", "by_hand", 1.6),
    Row("start", "start of `quorval run` until it is ready, peer: the shell", "true"),
    Row("start_cold", "start, its files on the disk alone, peer: 20 ms", "goal", 1),
    *_others("start_cold", "start, its files on the disk alone", "warm"),
    Row("peak_start", "memory of `quorval run`, peer: the goal", "goal", 1),
    Row("load_graph/10000", "load a graph of 10,000 blocks, peer: the parser alone", "tomlplusplus",
        2.5),
    Row("load_graph/100000", "load a graph of 100,000 blocks, peer: the parser alone",
        "tomlplusplus"),
    Row("heap_loaded_graph", "heap per block of a loaded graph, peer: of the file", "file"),
    # The peer by hand makes the same virtual calls over the same blocks.
    Row("wave_chain/10", "a run in a wave over a chain of 10", "by_hand", 4),
    Row("wave_chain/1000", "a run in a wave over a chain of 1,000", "by_hand", 2.5),
    Row("wave_chain/100000", "a run in a wave over a chain of 100,000", "by_hand", 3),
    Row("wave_chain/1000", "a run in a wave over a chain of 1,000", "onetbb", 1),
    Row("wave_chain/100000", "a run in a wave over a chain of 100,000", "onetbb"),
    Row("wave_chain/1000", "a run in a wave over a chain of 1,000", "gstreamer", 0.2),
    Row("wave_threads/busy", "a run of 20 µs in eight chains, on two threads, peer: one thread",
        "one_thread", 0.556),
    Row("wave_threads/tiny", "a run of next to nothing likewise", "one_thread", 1.1),
    Row("wave_timed/1000", "a timed run in a wave over a chain of 1,000", "untimed"),
    Row("event_to_run", "from a readable descriptor to a run", "by_hand", 1.5),
    Row("run_at/10000", "a run at a time, among 10,000", "queue"),
    Row("wave_sparse/100000", "a run in a wave over 10 of 100,000, peer: over 10 of 10", "alone",
        1.2),
    *_link("link_all", "a value over a broker, \"all\""),
    *_link("link_latest", "a value given over a broker, \"latest\""),
    *_link("link_single_all", "a single value over a broker, \"all\""),
    *_link("link_single_latest", "a single value over a broker, \"latest\""),
    Row("link_work/1024", "work for a value over a broker, 1 KiB, peer: the goal", "goal", 1),
    *_others("link_work/1024", "work for a value over a broker, 1 KiB", "by_hand", "zeromq"),
    *_record("record", "record a value, peer: insert it", "by_hand"),
    *_record("record_work", "work for recording a value, peer: for inserting it", "by_hand"),
    *_record("record_wave", "a wave that is recorded", "unrecorded"),
]


# The cases that a quick run leaves out.
SLOW = (r"/100000$|^create_members/10000$|^(nested|spread)_[a-z]+/(2|4|16|32)$|_ints_"
        r"|^link_.*/(64|65536)$|^record_work")


@dataclass(frozen=True)
class Growth:
    """One line about how a case of the library grows with its size.

    goal   the exponent to stay below, None for a line that is there for information
    """

    case: str
    title: str
    sizes: tuple[int, ...]
    goal: float | None = None


_DEPTHS = (1, 2, 4, 8, 16, 32, 64)
_SIZES = (1_000, 10_000, 100_000)

GROWTHS = [
    Growth("load_graph", "growth of loading a block, 100 to 100,000", (100, 10_000, 100_000)),
    Growth("run_at", "growth of a run at a time, 100 to 10,000 blocks", (100, 10_000), 0.3),
    Growth("wave_chain", "growth of a run in a wave over a chain, 10 to 100,000",
           (10, 1_000, 100_000)),
    Growth("create_members", "growth of creating a member, 1,000 to 100,000", _SIZES),
    Growth("add_connection", "growth of a connection, 1,000 to 100,000", _SIZES),
    Growth("nested_connections", "growth of `get_connections` per entry, 1 to 64 levels around",
           _DEPTHS, 0.2),
    Growth("nested_blocks", "growth of `get_blocks` per entry, 1 to 64 levels around",
           _DEPTHS, 0.2),
    Growth("spread_connections", "growth of `get_connections` per entry, spread over 1 to "
           "64 levels", _DEPTHS, 0.2),
    Growth("spread_blocks", "growth of `get_blocks` per entry, spread over 1 to 64 levels",
           _DEPTHS, 0.2),
]
