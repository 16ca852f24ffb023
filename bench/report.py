#!/usr/bin/env python3
"""Turns the benchmarks' JSON into documents. Usage: report.py cache|growth|limit|session|pool FOLDER JSON...

Each figure is the median over the repetitions, in nanoseconds an operation; a ratio is a table's
median divided by abseil's in the same run. The spread is that of the cache's own repetitions.
"""
import collections
import json
import os
import statistics
import sys

PEER = "abseil"
SIZES = (1, 4, 8, 32)
AHEAD = (16, 32, 64)
NAMES = {
    "kspool": "kspool, single calls",
    **{f"batch-{size}": f"kspool, batches of {size}" for size in SIZES},
    "batch": "kspool, batches of 1,000",
    "abseil": "abseil flat_hash_map",
    **{f"ahead-{ahead}": f"the same, each key prefetched {ahead} ahead" for ahead in AHEAD},
    "boost": "boost::unordered_flat_map",
    "std": "std::unordered_map",
    "dense": "sparsehash dense_hash_map",
    "sparse": "sparsehash sparse_hash_map",
}
WORKS = {
    "add": "add of new entries, nothing reserved",
    "hit": "presence test, hits (the cache counts them)",
    "scattered": "the same, digests anywhere in memory",
    "fetch": "fetch, hits (nothing is counted)",
    "miss": "presence test, misses",
}
PLOTTED = ("kspool", "batch", "abseil", "ahead-32", "boost", "std", "dense", "sparse")  # in cache.gnuplot

CARE = {  # work: title, peer
    "adler": ("Adler-32 of a block in a near cache, a byte", "zlib", "libdeflate"),
    "save": ("save, an entry, beside one write of as many bytes", "write"),
    "load": ("load, an entry, beside batched adds of the same keys", "add"),
    "limit": ("limit check that drops a tenth, with compaction, an entry, beside a copy of the pages",
              "memcpy"),
}

times = collections.defaultdict(list)
pools = {}
kind, folder, *names = sys.argv[1:]
for name in names:
    with open(name, encoding="utf-8") as file:
        report = json.load(file)
    if kind == "limit":
        break
    if kind == "pool":
        part, system, number = os.path.basename(name).removesuffix(".json").split("-")
        pools[part, system, int(number)] = report
    for run in report.get("benchmarks", ()):
        if run["run_type"] == "iteration":
            work, table, count = run["name"].split("/")[:3]
            times[work, table, int(count)].append(1e9 / run["items_per_second"])
median = {key: statistics.median(values) for key, values in times.items()}
counts = sorted({count for work, _, count in times if work in WORKS})


def write(name, lines):
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


def machine():
    context = report["context"]
    return [
        "## The machine", "",
        f"A virtual machine with {context['num_cpus']} processors of {context['mhz_per_cpu']} MHz, which",
        "shares its caches and memory with others: trust ratios, not single figures.", "",
    ]


def fastest(work, tables, n):
    return min(median[work, table, n] for table in tables)


AHEAD_TABLES = [f"ahead-{ahead}" for ahead in AHEAD]
REPLAYS = {level: [f"replay-{level}-{ahead}" for ahead in AHEAD] for level in ("first", "second")}


def times_faster(work, own, *peers):
    return lambda n: fastest(work, peers, n) / median[work, own, n]


def times_slower(work, own, *peers):
    return lambda n: median[work, own, n] / fastest(work, peers, n)


# What, figure of n entries, bars at a million and at ten million entries: the least, or the most when negative.
BARS = [
    ("batched hits, times as fast as abseil's find", times_faster("hit", "batch", "abseil"), 2.3, 3.0),
    ("the same, beside its best prefetched loop", times_faster("hit", "batch", *AHEAD_TABLES), 1.9, 2.0),
    ("the same, beside boost's flat map", times_faster("hit", "batch", "boost"), 2.0, 2.5),
    ("batched hits, times the replay of their lines", times_slower("hit", "batch", *REPLAYS["second"]), -1.6, -1.35),
    ("batched misses, times as fast as abseil's find", times_faster("miss", "batch", "abseil"), 1.0, 1.8),
    ("batched new adds, times as fast as abseil's insert", times_faster("add", "batch", "abseil"), 2.5, 2.5),
    ("single new adds, the same", times_faster("add", "kspool", "abseil"), 1.2, 1.2),
    ("single hits, times abseil's time", times_slower("hit", "kspool", "abseil"), -2.2, -1.4),
    ("single misses, times abseil's time", times_slower("miss", "kspool", "abseil"), -1.5, -1.1),
    *((f"batches of {size}, times as many single calls", times_slower("hit", f"batch-{size}", "kspool"), -1.05, -1.05)
      for size in SIZES),
    ("save, times one write", times_slower("save", "kspool", "write"), -1.3, -1.3),
    ("load, times batched adds", times_slower("load", "kspool", "add"), -1.3, -1.3),
    ("limit check that drops a tenth, copies of the pages", times_slower("limit", "kspool", "memcpy"), -3.2, -2.9),
    ("resident memory, times 72 bytes a node and 8 a root", times_slower("memory", "kspool", "least"), -1.03, -1.03),
    ("the same with pages of a 200th", times_slower("memory", "small", "least"), -1.005, -1.005),
]


def bars(counts):
    out = ["## Bars", "", "| | " + " | ".join(f"at {n:,} | bar" for n in counts) + " |",
           "|---|" + "---:|---:|" * len(counts)]
    for title, figure, *aims in BARS:
        cells = []
        for n, aim in zip(counts, aims):
            value = figure(n)
            met = value >= aim if aim > 0 else value <= -aim
            text = f"{value:.3f}" if "memory" in title or "200th" in title else f"{value:.2f}"
            cells += [text if met else f"**{text}**", f"at least {aim:g}" if aim > 0 else f"at most {-aim:g}"]
        out.append(f"| {title} | " + " | ".join(cells) + " |")
    return out + ["", "Bold: not reached."]


def replays(counts):
    out = ["## The lines of a hit", "",
           "A replay of exactly the cache lines that these lookups touch (the root, the nodes on the way, the",
           "reference count, which is written), found beforehand: the machine's own time, nanoseconds a lookup.", "",
           "| prefetched to | keys ahead | " + " | ".join(f"{n:,}" for n in counts) + " |",
           "|---|---:|" + "---:|" * len(counts)]
    for level, tables in REPLAYS.items():
        for ahead, table in zip(AHEAD, tables):
            cells = " | ".join(f"{median['hit', table, n]:.1f}" for n in counts)
            out.append(f"| the {level} level | {ahead} | {cells} |")
    batch = " | ".join(f"{median['hit', 'batch', n]:.1f}" for n in counts)
    return out + [f"| kspool, batches of 1,000 | | {batch} |"]


MACHINE = {"latency": "a read that depends on the read before", "copy": "a cache line of a copy"}


def machine_memory():
    sizes = sorted(size for work, _, size in times if work == "latency")
    out = ["## The memory of the machine", "",
           "Nanoseconds for each access to memory in huge pages, as large as the roots and the nodes of a",
           "million entries (16 and 72 MB) and of ten million (256 and 720 MB).", "",
           "| | " + " | ".join(f"{size >> 20} MB" for size in sizes) + " |", "|---|" + "---:|" * len(sizes)]
    for work, title in MACHINE.items():
        out.append(f"| {title} | " + " | ".join(f"{median[work, 'machine', size]:.2f}" for size in sizes) + " |")
    return out


# Why bars are missed, in words that hold for any run; the figures are in the tables.
REASONS = [
    "Batched hits are held by the lines above: where the second level takes prefetches no faster than the first,",
    "as on Zen 3, no table that stores entries so can be much faster. A single hit waits for its root and then for its node, two",
    "dependent lines, while abseil's control bytes, one a slot, mostly lie in a near cache. With half as many",
    "entries as roots, the first node belongs to another key in a fifth of the hits, and the processor mispredicts",
    "that branch. A miss reads a line of the roots, which take 16 MB at a million entries, and abseil one of 2 MB",
    "of control bytes. A batch of one pays for a second call. A load reads the file twice. A limit check passes",
    "over all pages twice, then reaches a tenth of the nodes through their trees to drop them, and a tenth to move",
    "them: random accesses, which no copy has.",
]


def cache_report():
    out = ["# The cache beside hash tables", ""]
    out += [
        "Written by `scripts/bench`: all tables in one run, rounds interleaved, on warmed-up memory.",
        "Nanoseconds for each operation, median of the rounds; in brackets the ratio to",
        f"{NAMES[PEER]} (below 1 is faster). Keys are random 32-byte digests, looked up in another order",
        "than they were added in. Pages and roots are those of KSCacheAreaFor() and KSCacheBitsFor().", "",
        "![Nanoseconds for each operation by number of entries](cache.svg)", "",
    ]
    for work, title in WORKS.items():
        out += [f"## {title[0].upper()}{title[1:]}", ""]
        out += ["| table | " + " | ".join(f"{count:,}" for count in counts) + " |"]
        out += ["|---|" + "---:|" * len(counts)]
        for table, name in NAMES.items():
            if (work, table, counts[0]) not in median:
                continue
            cells = [f"{median[work, table, n]:.1f}" + (f" ({median[work, table, n] / median[work, PEER, n]:.2f})"
                                                        if (work, PEER, n) in median else "") for n in counts]
            out.append(f"| {name} | " + " | ".join(cells) + " |")
        spread = ", ".join(
            f"{min(times[work, 'kspool', n]):.0f} to {max(times[work, 'kspool', n]):.0f}" for n in counts
        )
        rounds = len(times[work, "kspool", counts[0]])
        out += ["", f"Fastest to slowest of the {rounds} rounds of single calls: {spread} ns.", ""]
    out += ["## File, checksum and memory limit", "",
            "Nanoseconds for each entry (or byte); the ratio is kspool's time divided by the peer's.", "",
            "| work | entries | kspool | peer | ratio |", "|---|---:|---:|---:|---:|"]
    for work, (title, *peers) in CARE.items():
        for n in sorted({count for name, _, count in times if name == work}):
            for peer in peers:
                own, other = median[work, "kspool", n], median[work, peer, n]
                entries = f"{n:,}" if n > 1 else ""
                out.append(f"| {title} | {entries} | {own:.3g} | {peer} {other:.3g} | {own / other:.2f} |")
    full = [n for n in counts if ("save", "kspool", n) in median]
    write("cache.md", out + [""] + replays(counts) + [""] + bars(full) + [""] + REASONS + [""] + machine_memory() + [""]
          + machine())

    with open(os.path.join(folder, "cache.dat"), "w", encoding="utf-8") as file:
        file.write("entries " + " ".join(PLOTTED) + "\n")
        for work in ("add", "hit", "scattered", "miss"):
            for n in counts:
                cells = (f"{median[work, t, n]:.1f}" if (work, t, n) in median else "-" for t in PLOTTED)
                file.write(f"{n} " + " ".join(cells) + "\n")
            file.write("\n\n")


WHOLE = 700_000  # lines of 100 MB
LINE_BYTES = 140

SESSION = {  # work: title, peer
    "http": ("requests over http", "libcurl"),
    "tls": ("requests over TLS with a client certificate", "libcurl"),
    "find": ("lines of a 100 MB answer, whole query", "libcurl"),
    "lines": ("lines of a 100 MB answer, cursor alone", "memchr"),
}


def session_report():
    out = [
        "# Sessions beside bare libcurl", "",
        "Written by `scripts/bench session`: each pair in one run, rounds interleaved. Operations in a second,",
        "median of the rounds; in brackets the slowest and the fastest round. A ratio above 1 is faster than",
        "the peer.", "",
        "Requests go to the development server in the same process, one connection a round. The libcurl",
        "loop sends the same bytes with the same options and collects the answer; the session gives each",
        "request an id, checks the answer and converts it. The answer of a query comes from a server that only",
        "sends this answer, on a connection of its own; the cursor is compared with a loop that finds the end",
        "of each line by memchr and overwrites it.", "",
        "| | kspool | peer | ratio |", "|---|---:|---:|---:|",
    ]
    for work, (title, peer) in SESSION.items():
        n = WHOLE if work == "lines" else next(count for name, _, count in times if name == work)
        rates = {t: [1e9 / ns for ns in times[work, t, n]] for t in ("kspool", peer)}
        cells = [
            f"{statistics.median(r):,.0f} ({min(r):,.0f} to {max(r):,.0f})" for r in rates.values()
        ]
        ratio = statistics.median(rates["kspool"]) / statistics.median(rates[peer])
        out.append(f"| {title} | {cells[0]} | {peer} {cells[1]} | {ratio:.2f} |")
    threads = sorted(count for name, _, count in times if name == "sessions")
    out += ["", "## More sessions at once", "",
            "Each session has a thread; client and server share the processors of the machine.", "",
            "| sessions | " + " | ".join(map(str, threads)) + " |", "|---|" + "---:|" * len(threads),
            "| requests a second | "
            + " | ".join(f"{1e9 / median['sessions', 'kspool', n]:,.0f}" for n in threads) + " |",
            "", "## Cursor over answers of 1 kB to 1 GB", "",
            "Millions of lines a second.", "",
            "| bytes | cursor | memchr | ratio |", "|---:|---:|---:|---:|"]
    for n in sorted({count for name, _, count in times if name == "lines"}):
        own, other = (1e3 / median["lines", t, n] for t in ("kspool", "memchr"))
        out.append(f"| {n * LINE_BYTES:,} | {own:.1f} | {other:.1f} | {own / other:.2f} |")
    write("session.md", out + [""] + machine())


GROWTH = {
    "add": "add", "hit": "hit", "miss": "miss", "save": "save", "load": "load",
    "check": "limit check that drops a tenth", "reclaim": "compaction after a tenth was deleted",
}
TABLES = {"single": ", single calls", "batch": ", batches of 1,000", "all": "", "small": ", pages of 1,024 slots"}


def growth_table(prefix, caption, name_of):
    columns = sorted({count for work, _, count in times if work.startswith(prefix)})
    out = [f"| {caption} | " + " | ".join(name_of(n) for n in columns) + " |", "|---|" + "---:|" * len(columns)]
    rows = [(work, table) for work in GROWTH for table in TABLES if (prefix + work, table, columns[0]) in median]
    for work, table in rows:
        cells = [f"{median[prefix + work, table, n]:.1f}" for n in columns]
        out.append(f"| {GROWTH[work]}{TABLES[table]} | " + " | ".join(cells) + " |")
    with open(os.path.join(folder, prefix + "cache.dat"), "w", encoding="utf-8") as file:
        file.write(caption + " " + " ".join(f"{work}-{table}".removesuffix("-all") for work, table in rows) + "\n")
        for n in columns:
            file.write(f"{n} " + " ".join(f"{median[prefix + w, t, n]:.1f}" for w, t in rows) + "\n")
    return out


def growth_report():
    out = ["# How cost grows", "",
           "Written by `scripts/bench growth`: nanoseconds for each entry, median of three rounds (one from 30",
           "million entries on). Keys are computed when they are needed; lookups choose at random. Pages and",
           "roots are as in [cache.md](cache.md).", "", "![Nanoseconds by number of entries](growth.svg)", ""]
    out += growth_table("grow-", "entries", lambda n: f"{n:,}")
    out += ["", "A limit of whole MiB is too coarse for the smallest caches: nothing was dropped there. Up to 100,000",
            "entries fit the caches of the processor; beyond, single calls wait for each line from memory, while",
            "batches wait for many lines at once.",
            "", "## Ten million entries by number of roots", "", "![Nanoseconds by bits](bits.svg)", ""]
    out += growth_table("bits-", "bits", str)
    out += ["", "KSCacheBitsFor() gives 25. With few roots a search descends many levels, and each level is one more",
            "line from memory that depends on the line before.", ""]
    write("growth.md", out + machine())


def limit_report():
    kinds = {"kspool": "kspool", "until full": "until full", "last used": "last used", "ideal": "ideal"}
    percents = sorted({row["percent"] for row in report})
    rows = {(row["stream"], row["percent"]): row for row in report}
    streams = list(dict.fromkeys(row["stream"] for row in report))
    out = ["# What the memory limit keeps", "",
           "Written by `scripts/bench limit`: share of hits among 8 million lookups of 400,000 different keys (and",
           "of keys that occur once only), under a limit that is a part of the memory for all keys.",
           "`KSCacheCheck()` was called after each 4,000 lookups; unknown keys were added.", "",
           "- kspool: the cache as it is; a check drops the entries with the lowest reference counts.",
           "- until full: nothing is added to a full cache, and nothing dropped.",
           "- last used: the least recently used entry is dropped (LRU), one for one.",
           "- ideal: the entry that is needed last of all is dropped (Belady's optimum).", "",
           "| stream | limit | " + " | ".join(kinds.values()) + " |", "|---|---:|" + "---:|" * len(kinds)]
    for stream in streams:
        for percent in percents:
            row = rows[stream, percent]
            out.append(f"| {stream} | {percent} % | " + " | ".join(f"{row[k]:.3f}" for k in kinds) + " |")
    out += ["", "Reference counts beat LRU nearly wherever some keys are asked for more often than others, by more in",
            "smaller caches, and with scans of new keys too. Cyclic scans larger than the limit defeat count-based",
            "eviction and LRU alike: all entries have equal counts, and a check drops every entry with the lowest",
            "count. A cache that takes nothing more when it is full keeps its part of the cycle; see",
            "[capacity.md](../capacity.md).", "",
            "## Cost of checks", "",
            "| stream | limit | checks that dropped | entries dropped each | longest, ms | ns an entry dropped |"
            " ns a lookup |", "|---|---:|---:|---:|---:|---:|---:|"]
    for stream in streams:
        for percent in percents:
            row = rows[stream, percent]
            out.append(f"| {stream} | {percent} % | {row['checks']:,} | {row['dropped'] / row['checks']:,.0f} | "
                       f"{row['longest check'] * 1e3:.1f} | {row['check seconds'] / row['dropped'] * 1e9:.0f} | "
                       f"{row['check seconds'] / row['lookups'] * 1e9:.0f} |")
    out += ["", "Each check passes over all pages, so the cost for each lookup falls with the number of lookups between",
            "two checks. After a check the cache keeps its pages until a whole page of slots is free; an earlier check",
            "counts once more and drops a few entries."]
    write("limit.md", out + [""])


POOL = {  # kind: title
    "record": "record of {batch} POs", "name": "query by name, 1 PO", "prefix": "query by name prefix, 10 POs",
    "folder": "query by folder, 20 POs", "client": "query by client, 100 POs", "expire": "expire of {batch} POs",
}


def pool_table(runs, head, cell):
    out = [f"| {head[0]} | " + " | ".join(head[1:]) + " |", "|---|" + "---:|" * len(runs)]
    for work, title in POOL.items():
        cells = " | ".join(cell(run["kinds"][work]) for run in runs)
        out.append(f"| {title.format(batch=runs[0]['batch'])} | {cells} |")
    return out


def pool_latency(kind):
    return f"{kind['median'] * 1e3:.2f} ({kind['99 %'] * 1e3:.2f})"


def pool_rate(kind):
    return f"{statistics.median(kind['rates']):,.0f} ({min(kind['rates']):,.0f} to {max(kind['rates']):,.0f})"


def pool_section(part, name_of, first):
    """The runs of a part, and their table: latencies by kind, and the rate of all kinds together."""
    keys = sorted((key for key in pools if key[0] == part), key=lambda key: (key[2], key[1]))
    runs = [pools[key] for key in keys]
    return runs, pool_table(runs, [first, *(name_of(key[1], key[2]) for key in keys)], pool_latency) + [
        "| all, operations a second | " + " | ".join(f"{run['all']['operations a second']:,.0f}" for run in runs) + " |"]


def pool_syncs():
    """What it costs that a change is on the disk before it is confirmed."""
    keys = sorted((key for key in pools if key[0] in ("synced", "unsynced")), key=lambda key: (key[2], key[0] == "synced"))
    runs = [pools[key] for key in keys]
    heads = [f"{number} agent{'s' * (number > 1)}, {'synced' if part == 'synced' else '`--no-sync`'}" for part, _, number in keys]
    changes = [run["kinds"]["record"]["median"] * 1e3 for run in runs]
    rates = [run["all"]["operations a second"] for run in runs]
    return ["## Waiting for the disk", "",
            "The same mix, one run after the other. `serve` syncs each change before it confirms it, and not with `--no-sync`.",
            "", *pool_table(runs, ["", *heads], pool_latency),
            "| all, operations a second | " + " | ".join(f"{run['all']['operations a second']:,.0f}" for run in runs) + " |",
            "", f"With one agent, the median of a record is {changes[1] - changes[0]:.2f} ms longer; with {heads[-1].split(',')[0]}, all together get",
            f"{rates[-1] / rates[-2]:.2f} of the rate. Queries of other agents wait for a sync, too, since the server carries out one",
            "request at a time. Without syncs a change waits for the disk when the log is full and is written back.", ""]


def pool_report():
    growth, growing = pool_section("growth", lambda _, number: f"{number:,}", "POs in the pool")
    agents, crowding = pool_section("agents", lambda _, number: str(number), "agents")
    store, storing = pool_section("store", lambda system, _: system, "file system")
    sizes = [f"{run['preload']['pos']:,}" for run in growth]
    slower = [growth[-1]["kinds"][work]["median"] / growth[0]["kinds"][work]["median"] for work in POOL]
    loaded = " and ".join(f"{run['preload']['pos'] / run['preload']['seconds']:,.0f}" for run in (growth[0], growth[-1]))
    total, failed = (sum(run["all"][count] for run in pools.values()) for count in ("operations", "failed"))
    crowd = agents[-1]["all"]["operations a second"] / agents[0]["all"]["operations a second"]
    out = ["# A pool under load", "",
           "Written by `scripts/bench pool`: agents, each with a session and a thread of its own, record, query and",
           "expire POs on `kspool-sandbox`. Client and server share the processors of the machine. Each run has a server of",
           f"its own, whose database is a file on {next(iter(pools))[1]}, with `--no-sync`, unless a table says otherwise; it stores the answer",
           "to a change in the same transaction. An agent sends an operation when the one before has ended. Queries choose at random",
           f"among all POs, and each answer is compared with what was recorded: of {total:,} operations, {failed:,} failed.",
           "Milliseconds, median and in brackets 99 %.",
           "", "## Growth", "", f"One agent; the kinds take turns in {growth[0]['rounds']} rounds.", ""]
    out += growing[:-1] + ["", "Operations a second, median of the rounds; in brackets the slowest and the fastest round.", ""]
    out += pool_table(growth, ["POs in the pool", *sizes], pool_rate)
    out += ["", f"From {sizes[0]} to {sizes[-1]} POs the medians grow to {min(slower):.2f} to {max(slower):.2f} times their values. Each",
            "query seeks in an index, and then reads the POs that it returns. The pools were filled by lists of 1,000 POs,",
            f"at {loaded} POs a second for the smallest and the largest.",
            "", "## Agents at once", "",
            f"A mix of a fifth records, three fifths queries and a fifth expires on {agents[0]['preload']['pos']:,} POs.", "", *crowding,
            "", f"The rate with {agents[-1]['agents']} agents is {crowd:.2f} times that with one. The server carries out one request at a time, so an",
            "agent waits for the requests of all others.", "", "## The file system of the database", "",
            f"The same mix from {store[0]['agents']} agents.", "", *storing,
            "", "With `--no-sync` the server does not sync at a commit, but SQLite syncs at each checkpoint of its write-ahead log,",
            "about each 1,000 pages. The request that runs into a checkpoint waits for the disk, and all others wait behind it.", ""]
    out += pool_syncs()
    write("pool.md", out + machine())


{"cache": cache_report, "growth": growth_report, "limit": limit_report, "session": session_report,
 "pool": pool_report}[kind]()
