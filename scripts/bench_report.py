"""The generated part of docs/performance.md, from the results of scripts/bench.

write_report(run_dir, doc_path, machine) reads the JSON results in run_dir
(camgate-load runs, reference runs, Google Benchmark outputs) and replaces
everything below the marker line of doc_path; the text above it stays.
"""

import json
import math
import os

MARKER = "<!-- Everything below this line is written by scripts/bench. -->"
PAGE_KB = 4


def _load(run, name):
    path = os.path.join(run, name + ".json")
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return json.load(f)


def _cmd(run, name):
    path = os.path.join(run, name + ".cmd")
    if not os.path.exists(path):
        return ""
    with open(path) as f:
        return f.read().strip()


def _f(v, digits=2):
    if v is None:
        return "-"
    return f"{v:.{digits}f}"


def _mb(kb):
    return f"{kb / 1024:.2f} MB"


def _pages_kb(size):
    return math.ceil(size / 4096) * PAGE_KB


def _ok(flag):
    return "yes" if flag else "**no**"


def _benchmarks(run):
    out = {}
    for name in ("shm_cache_bench", "cache_mng_bench", "request_bench"):
        data = _load(run, "bench_" + name)
        if data is None:
            continue
        for b in data.get("benchmarks", []):
            out[b["name"]] = b
    return out


def _bench_ns(b):
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
    return b["real_time"] * scale


def _anon_at(load, t):
    """RssAnon of the first sample at or after t seconds (the last sample if none)."""
    samples = load["daemon"]["samples"]
    for s in samples:
        if s["t_s"] >= t:
            return s["anon_kb"]
    return samples[-1]["anon_kb"]


def probe_text(load):
    p = load["probe_first_frame_ms"]
    return f"{_f(p['median'])} / {_f(p['p99'])}" if p["count"] else "-"


def write_report(run, doc, machine):
    idle = _load(run, "idle")
    control = _load(run, "control")
    cases = [
        ("1 viewer, 4 Mbit/s", "v1_4m", "ref1_4m"),
        ("8 viewers, 4 Mbit/s (standard case)", "v8_4m", "ref8_4m"),
        ("8 viewers, 16 Mbit/s", "v8_16m", "ref8_16m"),
    ]
    loads = {key: _load(run, key) for _, key, _ in cases}
    refs = {ref: _load(run, ref) for _, _, ref in cases}
    bench = _benchmarks(run)

    lines = [MARKER, ""]
    add = lines.append
    add(f"## Results of {machine['date']}")
    add("")
    add("### Machine")
    add("")
    add("| | |")
    add("|---|---|")
    add(f"| CPU | {machine['cpu']} |")
    add(f"| cores | {machine['cores']} |")
    add(f"| kernel | {machine['kernel']} |")
    add(f"| compiler | {machine['compiler']} |")
    add(f"| build | {machine['build']} |")
    add(f"| run | scripts/bench{' --quick' if machine['mode'] == 'quick' else ''}: "
        f"{machine['live_s']} s per live case, {machine['elapsed']} s in all |")
    add(f"| load average (1, 5, 15 min) | {machine['load_before']} before, {machine['load_after']} after |")
    add(f"| CPU busy over 2 s just before the run | {machine['busy_before']} % |")
    add("")
    add("The encoder simulator writes one synthetic 640x360 H.264 stream at 25 frames a second with an I-frame "
        "every 25 frames (1 s GOP), its frames sized for the bit rate (an I-frame weighs 8 P-frames), and "
        "G.711 audio (40 ms frames). A fresh daemon serves each case; the viewers and control clients run in "
        "camgate-load, the daemon's figures come from /proc and exclude them.")
    add("")

    # --- targets ---------------------------------------------------------------
    add("### Targets")
    add("")
    add("| Figure | Measured | Reference | Ratio | Target | Met |")
    add("|---|---|---|---|---|---|")
    v1, v8, v16 = loads["v1_4m"], loads["v8_4m"], loads["v8_16m"]
    if v1:
        probe = v1["probe_first_frame_ms"]
        add(f"| Time to first frame, one viewer at a time (median, p99 of {probe['count']}) | "
            f"{_f(probe['median'])} ms, {_f(probe['p99'])} ms | 500 ms: a server that waits for the next "
            f"key frame (1 s GOP: 0 to 1000 ms) | {_f(probe['median'] / 500, 4)} | median < 5 ms | "
            f"{_ok(probe['median'] < 5)} |")
    if v8:
        ff = v8["first_frame_ms"]
        add(f"| Time to first frame, 8 viewers asking at once (median, p99) | {_f(ff['median'])} ms, "
            f"{_f(ff['p99'])} ms | 500 ms (as above) | {_f(ff['median'] / 500, 4)} | median < 5 ms | "
            f"{_ok(ff['median'] < 5)} |")
    ratios = []
    for label, key, ref in cases:
        d, r = loads[key], refs[ref]
        if not d or not r or not d["daemon"] or r["cpu_ns_per_byte"] <= 0:
            continue
        ratio = d["daemon"]["cpu_ns_per_byte"] / r["cpu_ns_per_byte"]
        ratios.append((key, ratio))
        add(f"| CPU per delivered byte, {label} | {_f(d['daemon']['cpu_ns_per_byte'])} ns | "
            f"{_f(r['cpu_ns_per_byte'])} ns (reference program) | {_f(ratio)} | within 1.5x | "
            f"{_ok(ratio <= 1.5)} |")
    sleep = bench.get("BM_TimerSleepWake/iterations:500/real_time")
    wake_us = sleep["cpu_us"] if sleep else None
    for label, key, ref in cases:
        d, r = loads[key], refs[ref]
        if not wake_us or not d or not r or not d["daemon"] or r["wakeups_per_s"] <= 0:
            continue
        dm = d["daemon"]
        d_cost = dm["wakeups_per_s"] * wake_us / 1e4  # % of a core at the measured price
        r_cost = r["wakeups_per_s"] * wake_us / 1e4
        add(f"| Wake-ups a second, {label}; what they cost at {_f(wake_us, 1)} us each (BM_TimerSleepWake) | "
            f"{_f(dm['wakeups_per_s'], 0)}: {_f(d_cost)} % of a core, of the {_f(dm['cpu_percent'])} % the daemon "
            f"used | {_f(r['wakeups_per_s'], 0)}: {_f(r_cost)} % of a core, of the {_f(r['cpu_percent'])} % the "
            f"reference used | {_f(dm['wakeups_per_s'] / r['wakeups_per_s'], 1)} | (where the CPU goes) | |")
    marginal = None
    if v8 and v16 and refs["ref8_4m"] and refs["ref8_16m"]:
        d_cpu = v16["daemon"]["cpu_s"] - v8["daemon"]["cpu_s"]
        d_bytes = v16["bytes"] - v8["bytes"]
        r_cpu = refs["ref8_16m"]["sender_cpu_s"] - refs["ref8_4m"]["sender_cpu_s"]
        r_bytes = refs["ref8_16m"]["bytes"] - refs["ref8_4m"]["bytes"]
        if d_bytes > 0 and r_bytes > 0 and r_cpu > 0:
            marginal = (d_cpu * 1e9 / d_bytes, r_cpu * 1e9 / r_bytes)
            add(f"| CPU per additional byte, 8 viewers, 4 -> 16 Mbit/s | {_f(marginal[0])} ns | "
                f"{_f(marginal[1])} ns | {_f(marginal[0] / marginal[1])} | (the cost that grows with the "
                f"bytes) | |")
    if idle and idle["daemon"]:
        dm = idle["daemon"]
        add(f"| Daemon CPU while idle (attached, no viewer, {_f(idle['elapsed_s'], 0)} s) | "
            f"{_f(dm['cpu_percent'], 3)} % of a core ({_f(dm['cpu_s'])} s) | 0 | | ~0 | "
            f"{_ok(dm['cpu_percent'] < 0.5)} |")
        add(f"| Daemon RSS while idle (VmRSS) | {_mb(dm['rss_kb_end'])}: own {_mb(dm['anon_kb_end'])}, "
            f"program and libraries {_mb(dm['file_kb_end'])}, frame cache {_mb(dm['shmem_kb_end'])} | | | "
            f"< 4 MB | {_ok(dm['rss_kb_end'] < 4096)} |")
    if v8 and v8["daemon"]:
        dm = v8["daemon"]
        n = len(v8["viewers"])
        per_viewer = (dm["anon_kb_end"] - dm["anon_kb_start"]) / n
        largest_v = max(v["largest_video"] for v in v8["viewers"])
        largest_a = max(v["largest_audio"] for v in v8["viewers"])
        touched = _pages_kb(largest_v + 24) + _pages_kb(largest_a + 12)
        add(f"| Daemon's own memory per viewer (RssAnon, 8 viewers) | {_f(per_viewer, 0)} KB | {touched} KB: "
            f"the pages of the largest frames in its buffers ({largest_v} + {largest_a} bytes); the rest is "
            f"the stacks of its two threads | "
            f"{_f(per_viewer / touched)} | no more than the buffers touched | {_ok(per_viewer <= touched * 1.5)} |")
        a5 = _anon_at(v8, 5)
        growth = dm["anon_kb_end"] - a5
        add(f"| Growth of the daemon's own memory, 5 s to the end of the {_f(v8['elapsed_s'], 0)} s run "
            f"(8 viewers) | {growth} KB ({a5} -> {dm['anon_kb_end']} KB) | 0 | | none (no leak) | "
            f"{_ok(growth <= 64)} |")
    rf = bench.get("BM_ReadFrame/65536")
    if rf:
        add(f"| Frame-cache read of a 64 KB frame | {_f(_bench_ns(rf), 0)} ns | {_f(rf['limit_ns'], 0)} ns: "
            f"memcpy of 64 KB + one semop pair | {_f(rf['x_limit'])} | within 2x | {_ok(rf['x_limit'] <= 2)} |")
    add("")

    # --- live cases --------------------------------------------------------------
    add("### Live cases")
    add("")
    add("Frame age: a frame's capture time (its pts) to its last byte at the viewer. \"Caught up\": from the "
        "first frame no older than two frame periods on; before that the viewer works off the GOP it started "
        "with at the pace of the video loop (two frames a second faster than the stream).")
    add("")
    add("| Case | Video frames per viewer | Mbit/s per viewer | First frame, one at a time: median / p99 (ms) | "
        "First frame, all viewers at once: median / p99 (ms) | "
        "Frame age, all: median / p99 (ms) | Frame age, caught up: median / p99 (ms) | Caught up after "
        "(median, s) | Daemon CPU (% of a core) | ns per byte | Reference ns per byte | Ratio | "
        "Wake-ups/s, daemon / reference | RSS start -> end (own) | Threads |")
    add("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    for label, key, ref in cases:
        d, r = loads[key], refs[ref]
        if not d:
            continue
        dm = d["daemon"] or {}
        ratio = (dm.get("cpu_ns_per_byte", 0) / r["cpu_ns_per_byte"]) if r and r["cpu_ns_per_byte"] > 0 else None
        add(f"| {label} | {_f(d['video_frames_per_viewer']['mean'], 1)} | {_f(d['mbit_per_s_per_viewer'])} | "
            f"{probe_text(d)} | {_f(d['first_frame_ms']['median'])} / {_f(d['first_frame_ms']['p99'])} | "
            f"{_f(d['frame_age_ms']['median'], 0)} / {_f(d['frame_age_ms']['p99'], 0)} | "
            f"{_f(d['steady_frame_age_ms']['median'], 0)} / {_f(d['steady_frame_age_ms']['p99'], 0)} | "
            f"{_f(d['catch_up_ms']['median'] / 1000, 1)} | {_f(dm.get('cpu_percent'))} | "
            f"{_f(dm.get('cpu_ns_per_byte'))} | {_f(r['cpu_ns_per_byte']) if r else '-'} | {_f(ratio)} | "
            f"{_f(dm.get('wakeups_per_s'), 0)} / {_f(r['wakeups_per_s'], 0) if r else '-'} | "
            f"{_mb(dm.get('rss_kb_start', 0))} -> {_mb(dm.get('rss_kb_end', 0))} "
            f"({_mb(dm.get('anon_kb_start', 0))} -> {_mb(dm.get('anon_kb_end', 0))}) | "
            f"{dm.get('threads_start', '-')} -> {dm.get('threads_max', '-')} |")
    add("")
    add("Reference program runs (same stream, same length, one reader for all sockets):")
    add("")
    add("| Run | Sockets | Video frames | Audio frames | MB delivered | Sender CPU (% of a core) | ns per byte | "
        "Wake-ups/s |")
    add("|---|---|---|---|---|---|---|---|")
    for label, key, ref in cases:
        r = refs[ref]
        if r:
            add(f"| {label} | {r['sockets']} | {r['video_frames']} | {r['audio_frames']} | "
                f"{_f(r['bytes'] / 1e6)} | {_f(r['cpu_percent'], 3)} | {_f(r['cpu_ns_per_byte'])} | "
                f"{_f(r['wakeups_per_s'], 0)} |")
    add("")
    if v8 and v8["daemon"]:
        add("Memory of the daemon during the standard case, sampled every second (KB):")
        add("")
        samples = v8["daemon"]["samples"]
        picks = [s for s in samples if abs(s["t_s"] - round(s["t_s"])) < 0.2 and round(s["t_s"]) % 5 == 0]
        picks = picks or samples
        add("| t (s) | " + " | ".join(str(round(s["t_s"])) for s in picks) + " |")
        add("|---|" + "---|" * len(picks))
        add("| VmRSS | " + " | ".join(str(s["rss_kb"]) for s in picks) + " |")
        add("| RssAnon | " + " | ".join(str(s["anon_kb"]) for s in picks) + " |")
        add("| threads | " + " | ".join(str(s["threads"]) for s in picks) + " |")
        add("")
        add(f"VmHWM at the end: {v8['daemon']['vmhwm_kb']} KB (the peak of the process's whole life).")
        add("")

    # --- control -------------------------------------------------------------------
    if control:
        c = control["control"]
        add("### Control requests")
        add("")
        add(f"{c['clients']} clients, each logging in and then sending heartbeat, get network (0x30010) and get "
            f"time (0x30001) in a loop for {_f(control['elapsed_s'], 0)} s. The dispatcher pauses 2000 us after "
            f"each reply, so one connection serves at most about 470 requests a second.")
        add("")
        add("| | Requests/s (all clients) | Latency median (ms) | p99 (ms) | max (ms) |")
        add("|---|---|---|---|---|")
        add(f"| all | {_f(c['requests_per_s'], 1)} | {_f(c['latency_ms']['median'])} | "
            f"{_f(c['latency_ms']['p99'])} | {_f(c['latency_ms']['max'])} |")
        for name, key in (("heartbeat", "heartbeat_ms"), ("get network", "get_network_ms"),
                          ("get time", "get_time_ms")):
            s = c[key]
            add(f"| {name} | | {_f(s['median'])} | {_f(s['p99'])} | {_f(s['max'])} |")
        add("")

    # --- benchmarks ------------------------------------------------------------------
    if bench:
        add("### Benchmarks")
        add("")
        add("| Benchmark | Time | Limit or floor | Ratio | Notes |")
        add("|---|---|---|---|---|")

        def row(name, note="", limit=None, ratio=None, unit="ns"):
            b = bench.get(name)
            if not b:
                return
            t = _bench_ns(b)
            shown = f"{t / 1000:.2f} us" if unit == "us" else f"{t:.0f} ns"
            add(f"| {name} | {shown} | {limit or ''} | {ratio or ''} | {note} |")

        row("BM_SemopPair", "take and give back one semaphore: the floor of every cache operation")
        b = bench.get("BM_TimerSleepWake/iterations:500/real_time")
        if b:
            add(f"| BM_TimerSleepWake | {_bench_ns(b) / 1000:.0f} us | | | usleep(1000) and the wake-up: "
                f"{_f(b['cpu_us'], 1)} us of CPU charged to the sleeping thread, the price of every wait of a "
                f"polling loop |")
        for size in (1024, 65536, 524288):
            row(f"BM_Memcpy/{size}", "the copy limit")
            for op in ("BM_ReadFrame", "BM_WriteFrame"):
                b = bench.get(f"{op}/{size}")
                if b:
                    row(f"{op}/{size}", "x memcpy alone: " + _f(b["x_memcpy"]),
                        f"{_f(b['limit_ns'], 0)} ns (memcpy + semop pair)", _f(b["x_limit"]))
        row("BM_ReadNotYetWritten", "a serial not written yet: the lookup and the semaphore, no copy")
        for name in ("BM_FindBySerial", "BM_FindBySelector/0", "BM_FindBySelector/-1", "BM_FindBySelector/-2",
                     "BM_FindNotYetWritten"):
            row(name, "lookup in a full cache (300 frames), no semaphore")
        row("BM_FirstMessageReadsOnly", "the two reads of a first header over a socketpair")
        b = bench.get("BM_FirstMessageDispatch")
        f = bench.get("BM_FirstMessageReadsOnly")
        if b and f:
            row("BM_FirstMessageDispatch", "magic check and edci_parse_protocol of an unknown command",
                f"{_bench_ns(f):.0f} ns (the reads alone)", _f(_bench_ns(b) / _bench_ns(f)))
        floor = bench.get("BM_SocketRoundTrip/iterations:300/manual_time")
        if floor:
            row("BM_SocketRoundTrip/iterations:300/manual_time", "12 bytes there and back to a sleeping thread",
                unit="us")
        for cmd, label in ((131075, "heartbeat"), (196613, "get daylight saving (no settings server)"),
                           (65536, "unknown command")):
            name = f"BM_ControlBackToBack/{cmd}/iterations:400/real_time"
            b = bench.get(name)
            if b:
                add(f"| control {label}, back to back | {_bench_ns(b) / 1000:.0f} us | "
                    f"{_f(b['pause_us'], 0)} us (usleep(2000) here) | {_f(_bench_ns(b) / 1000 / b['pause_us'])} | "
                    f"{_f(b['items_per_second'], 0)} requests/s; serving thread CPU {_f(b['server_cpu_us'], 1)} us "
                    f"per request |")
            name = f"BM_ControlAfterPause/{cmd}/iterations:300/manual_time"
            b = bench.get(name)
            if b and floor:
                add(f"| control {label}, after the pause | {_bench_ns(b) / 1000:.1f} us | "
                    f"{_bench_ns(floor) / 1000:.1f} us (socket round trip) | "
                    f"{_f(_bench_ns(b) / _bench_ns(floor))} | request to reply when the dispatcher is waiting; "
                    f"serving thread CPU {_f(b['server_cpu_us'], 1)} us per request |")
        add("")

    # --- commands ------------------------------------------------------------------------
    add("### Commands")
    add("")
    add("Each case ran against a fresh camgated (CAMGATE_SHELL=tests/tools/shell-recorder, "
        "CAMGATE_BROADCAST_ADDR=127.255.255.255, private ports and frame-cache key), fed by")
    add("`camgate-encoder --streams 1 --synthetic --size 640x360 --fps 25 --gop 25 --kbps 4000 --no-snapshot` "
        "(16000 and `--cache-kb 8192` for the 16 Mbit/s case):")
    add("")
    add("```")
    for name in ("idle", "control", "v1_4m", "ref1_4m", "v8_4m", "ref8_4m", "v8_16m", "ref8_16m"):
        cmd = _cmd(run, name)
        if cmd:
            add(f"{name:9} {cmd}")
    add("camgate_bench_shm_cache_bench, camgate_bench_cache_mng_bench, camgate_bench_request_bench "
        "(--benchmark_out_format=json)")
    add("```")
    add("")

    head = ""
    if os.path.exists(doc):
        with open(doc) as f:
            text = f.read()
        head = text.split(MARKER)[0] if MARKER in text else text.rstrip() + "\n\n"
    with open(doc, "w") as f:
        f.write(head + "\n".join(lines))
