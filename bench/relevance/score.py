#!/usr/bin/python3
"""Runs every query of queries.tsv against kestelasticd and recollq and
prints, per case, the share of queries each answered right.

    score.py --queries TSV --root DIR --socket SOCK --indices ID,... \
             --recoll-conf DIR [--details FILE]

Expected files are relative to --root, the folder both indexed. A query is
right when, in the top ten, "top10": every expected file is there; "first":
the first hit is the first expected file; "none": there is no hit. An error
(a refused query) is wrong whatever the mode: the user gets no answer.
"""

import argparse
import json
import socket
import struct
import subprocess
import urllib.parse
from collections import OrderedDict

TOP = 10
LOAD_FIELDS = ["KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir", "KESTMDFSSize"]


def read_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise ConnectionError("the daemon closed the connection mid-reply")
        data += chunk
    return data


def kest(sock_path, indices, keyword):
    """Paths of the top hits, as the web API module asks for them (an
    administrator: no permission filter)."""
    request = {"command": "search", "data": {
        "fields": ["KESTMDPath", "KESTMDFSName"],
        "pre_query": {"keyword": keyword, "criteria_list": [], "file_type": "",
                      "search_weight_list": None},
        "orig_keyword": keyword, "indice": indices, "from": 0, "size": TOP,
        "default_search_op": "AND", "accurate_sum": False, "load_field": LOAD_FIELDS,
        "lazy_field": ["KESTMDTextContent"],
        "collector": {"agent": "others", "uid": 0, "has_criteria": False}}}
    body = json.dumps(request, ensure_ascii=False).encode("utf-8")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(60)
        s.connect(sock_path)
        s.sendall(struct.pack(">I", len(body)) + body)
        hits = []
        while True:
            (length,) = struct.unpack(">I", read_exact(s, 4))
            message = json.loads(read_exact(s, length))
            if "total" in message:
                continue
            if "success" in message:
                if not message["success"]:
                    error = message.get("error", {})
                    return None, "error %s %s" % (error.get("code"), error.get("msg", ""))
                return hits, None
            hits.append(message["KESTMDPath"])


def recoll(conf, query):
    run = subprocess.run(["recollq", "-c", conf, "-b", "-n", str(TOP), query],
                         capture_output=True, timeout=60)
    if run.returncode != 0:
        return None, "recollq exit %d: %s" % (
            run.returncode, run.stderr.decode("utf-8", "replace").strip()[-200:])
    hits = []
    for line in run.stdout.decode("utf-8", "surrogateescape").splitlines():
        if line.startswith("file://"):
            hits.append(urllib.parse.unquote(line[len("file://"):]))
    return hits, None


def right(hits, expected, mode):
    if hits is None:
        return False
    if mode == "none":
        return not hits
    if mode == "first":
        return bool(hits) and hits[0] == expected[0]
    return all(e in hits[:TOP] for e in expected)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--queries", required=True)
    ap.add_argument("--root", required=True)
    ap.add_argument("--socket", required=True)
    ap.add_argument("--indices", required=True)
    ap.add_argument("--recoll-conf", required=True)
    ap.add_argument("--details", help="write every query's hits here")
    args = ap.parse_args()
    root = args.root.rstrip("/") + "/"
    indices = args.indices.split(",")

    def relative(hits):
        return None if hits is None else [h[len(root):] if h.startswith(root) else h
                                          for h in hits]

    score = OrderedDict()  # case -> [queries, kest right, recoll right]
    lines = []
    with open(args.queries, encoding="utf-8") as f:
        for line in f:
            if not line.strip() or line.startswith("#"):
                continue
            case, kq, rq, expected, mode = line.rstrip("\n").split("\t")
            expected = [e for e in expected.split("|") if e]
            k_hits, k_err = kest(args.socket, indices, kq)
            r_hits, r_err = recoll(args.recoll_conf, rq)
            k_hits, r_hits = relative(k_hits), relative(r_hits)
            k_ok, r_ok = right(k_hits, expected, mode), right(r_hits, expected, mode)
            row = score.setdefault(case, [0, 0, 0])
            row[0] += 1
            row[1] += k_ok
            row[2] += r_ok
            lines.append("[%s] %s %s  %s (%s)  want %s\n  kest   %s %s\n  recoll %s %s\n" % (
                case, "ok " if k_ok else "BAD", "ok " if r_ok else "BAD", kq, mode,
                " | ".join(expected) or "nothing",
                k_err or k_hits, "" if k_ok else "<- wrong",
                r_err or r_hits, "" if r_ok else "<- wrong"))
    if args.details:
        with open(args.details, "w", encoding="utf-8") as out:
            out.write("first column: kestelasticd, second: recollq\n\n" + "\n".join(lines))

    def pct(n, d):
        return "%3d/%-3d %4.0f%%" % (n, d, 100.0 * n / d)

    print("%-12s %7s  %-14s %-14s" % ("case", "queries", "kestelasticd", "recoll"))
    total = [0, 0, 0]
    for case, (n, k, r) in score.items():
        print("%-12s %7d  %-14s %-14s" % (case, n, pct(k, n), pct(r, n)))
        total = [total[0] + n, total[1] + k, total[2] + r]
    print("%-12s %7d  %-14s %-14s" % ("overall", total[0], pct(total[1], total[0]),
                                      pct(total[2], total[0])))


if __name__ == "__main__":
    main()
