#!/usr/bin/env bash
# Both builds on real game levels (Debian's openarena-081-maps), each level
# submitted whole as a host stores it: runs the demo at 320x192 and 640x360
# and prints, per level and over all of them, false occlusions, hidden boxes
# culled (on screen and overall) and the median moving-camera frame (render
# and query), then that frame against the all-raw one on the same cameras
# (every mesh submitted as deforming, timed without the reference) and the
# frame with the level submitted twice, side by side.
#   tools/level-figures.sh [frames] [levels...]
set -euo pipefail
cd "$(dirname "$0")/.."
frames=${1:-200}
shift || true
levels=("$@")
[ ${#levels[@]} -eq 0 ] && levels=(oa_dm1 oa_dm4 ctf_gate1 aggressor oa_dm5)
tools/install-deps.sh demo
cmake --preset release -B build/demo -DZELK_BUILD_TESTS=OFF -DZELK_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo --target zelk_demo -j2 >/dev/null
out=$(mktemp -d)
for size in 320x192 640x360; do
  for level in "${levels[@]}"; do
    ./build/demo/tools/zelk-demo --level "$level" --width "${size%x*}" --height "${size#*x}" --frames "$frames" \
      --json >"$out/$level-$size.json"
    ./build/demo/tools/zelk-demo --level "$level" --width "${size%x*}" --height "${size#*x}" --frames "$frames" \
      --json --no-reference >"$out/$level-$size-timed.json"
    ./build/demo/tools/zelk-demo --level "$level" --width "${size%x*}" --height "${size#*x}" --frames "$frames" \
      --json --no-reference --all-raw >"$out/$level-$size-raw.json"
    ./build/demo/tools/zelk-demo --level "$level" --width "${size%x*}" --height "${size#*x}" --frames "$frames" \
      --json --no-reference --copies 2 >"$out/$level-$size-twice.json"
  done
done
python3 - "$out" "${levels[@]}" <<'PY'
import json, sys, os
out, levels = sys.argv[1], sys.argv[2:]
modes = ("default", "conservative")
for size in ("320x192", "640x360"):
    print(f"\n{size}: false occlusions (severe) | culled on screen | culled overall | moving frame ms (median)")
    total = {m: [0, 0, 0, 0, 0, 0] for m in modes}
    for level in levels:
        d = json.load(open(os.path.join(out, f"{level}-{size}.json")))
        row = [f"{level:10}"]
        for m in modes:
            r = d[m]
            t = r["timings_ms"]["warm"]["library"]["median"]
            row.append(f"{m[:4]} {r['false_occlusions']:4} ({r['false_occlusions_severe']:3}) "
                       f"{r['culling_efficiency_on_screen']:.3f} {r['culling_efficiency']:.3f} {t:.3f}")
            for i, k in enumerate(("false_occlusions", "false_occlusions_severe", "truly_hidden_on_screen_culled",
                                   "truly_hidden_on_screen", "truly_hidden_culled", "truly_hidden")):
                total[m][i] += r[k]
        print(" | ".join(row))
    for m in modes:
        f, s, hc, h, ac, a = total[m]
        print(f"all levels, {m}: {f} false ({s} severe), culled on screen {hc / max(h, 1):.3f}, overall {ac / max(a, 1):.3f}")
    # Timed without the reference, beside the same cameras all raw, each build against its own raw frame.
    print(f"\n{size}: moving frame, render + query ms (median): baked | all raw | baked / all raw | level twice / once;"
          " conservative / default")
    for level in levels:
        baked = json.load(open(os.path.join(out, f"{level}-{size}-timed.json")))
        raw = json.load(open(os.path.join(out, f"{level}-{size}-raw.json")))
        twice = json.load(open(os.path.join(out, f"{level}-{size}-twice.json")))
        frame = lambda d, m: sum(d[m]["timings_ms"]["warm"][p]["median"] for p in ("render", "query"))
        row = [f"{level:10}"]
        for m in modes:
            row.append(f"{m[:4]} {frame(baked, m):.3f} {frame(raw, m):.3f} {frame(baked, m) / frame(raw, m):.2f} "
                       f"{frame(twice, m) / frame(baked, m):.2f}")
        row.append(f"{frame(baked, 'conservative') / frame(baked, 'default'):.2f}")
        print(" | ".join(row))
PY
