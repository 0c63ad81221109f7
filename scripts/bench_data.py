#!/usr/bin/env python3
"""Data and servers for scripts/bench.

  bench_data.py tree ROOT FOLDERS FILES    a tree of FOLDERS folders holding FILES empty files
  bench_data.py listing BODY ENTRIES       a multistatus body: one folder of ENTRIES files
  bench_data.py serve PORT_FILE BODY       a WebDAV folder on loopback whose Depth 1 listing is BODY
  bench_data.py counter JSON BENCH COUNTER FORMAT
                                           a counter of a bench/ program's JSON output: the median
                                           over its repetitions, or n/a (and why, on stderr)

File names carry a global serial ("f-0000042.dat", "d-0042-07"), so that anyone can count the
items a listing tool printed, whatever its output format.
"""

import http.server
import json
import math
import os
import statistics
import sys

LAST_MODIFIED = "Sat, 21 Nov 2026 10:00:00 GMT"


def make_tree(root, folders, files):
    """Two levels: about sqrt(FOLDERS) top folders, each with the same number of children.

    Files are spread evenly over all folders. Empty files keep the generation at a few seconds
    for 100 000 of them: a listing only sees names, sizes and dates.
    """
    top = max(1, int(math.sqrt(folders)))
    paths = []
    for t in range(top):
        paths.append(os.path.join(root, "d-%04d" % t))
    children = folders - top
    for c in range(children):
        paths.append(os.path.join(paths[c % top], "d-%04d-%04d" % (c % top, c // top)))
    for path in paths:
        os.makedirs(path, exist_ok=True)
    for serial in range(files):
        folder = paths[serial % len(paths)]
        with open(os.path.join(folder, "f-%07d.dat" % serial), "wb"):
            pass


RESPONSE = (
    "<D:response><D:href>/f-%07d.dat</D:href><D:propstat><D:prop><D:resourcetype/>"
    "<D:getcontentlength>%d</D:getcontentlength>"
    "<D:getlastmodified>" + LAST_MODIFIED + "</D:getlastmodified>"
    '<D:getetag>"%x-%x"</D:getetag>'
    "<D:getcontenttype>application/octet-stream</D:getcontenttype>"
    "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>\n"
)
HEAD = '<?xml version="1.0" encoding="utf-8"?>\n<D:multistatus xmlns:D="DAV:">\n'
SELF = (
    "<D:response><D:href>/</D:href><D:propstat><D:prop>"
    "<D:resourcetype><D:collection/></D:resourcetype>"
    "<D:getlastmodified>" + LAST_MODIFIED + "</D:getlastmodified>"
    "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>\n"
)
TAIL = "</D:multistatus>\n"


def write_listing(body, entries):
    with open(body, "w", encoding="ascii") as out:
        out.write(HEAD + SELF)
        batch = 10000
        for start in range(0, entries, batch):
            out.write(
                "".join(
                    RESPONSE % (i, i % 100000, i, i * 7 + 1)
                    for i in range(start, min(entries, start + batch))
                )
            )
        out.write(TAIL)


class ListingHandler(http.server.BaseHTTPRequestHandler):
    """Answers PROPFIND of the root: Depth 0 with the folder alone, otherwise with the big body.

    The body goes out with sendfile from a file written beforehand, so that the server spends
    next to no CPU while the client under measurement parses.
    """

    protocol_version = "HTTP/1.1"
    body_path = ""

    def log_message(self, *args):
        pass

    def _drain(self):
        length = int(self.headers.get("Content-Length") or 0)
        if length:
            self.rfile.read(length)

    def do_OPTIONS(self):
        self._drain()
        self.send_response(200)
        self.send_header("DAV", "1")
        self.send_header("Allow", "OPTIONS, PROPFIND")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def do_PROPFIND(self):
        self._drain()
        if self.path.split("?")[0].strip("/"):
            self.send_error(404)
            return
        self.send_response(207)
        self.send_header("Content-Type", 'application/xml; charset="utf-8"')
        if self.headers.get("Depth", "infinity") == "0":
            small = (HEAD + SELF + TAIL).encode()
            self.send_header("Content-Length", str(len(small)))
            self.end_headers()
            self.wfile.write(small)
            return
        size = os.path.getsize(self.body_path)
        self.send_header("Content-Length", str(size))
        self.end_headers()
        self.wfile.flush()
        with open(self.body_path, "rb") as body:
            self.connection.sendfile(body)


def serve(port_file, body):
    ListingHandler.body_path = body
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), ListingHandler)
    with open(port_file + ".tmp", "w") as out:
        out.write(str(server.server_address[1]))
    os.rename(port_file + ".tmp", port_file)
    server.serve_forever()


def counter(json_path, bench, name, form):
    """BENCH is the benchmark's name up to its arguments: "BM_GoogleFullTree", "BM_Foo/100"."""
    try:
        with open(json_path) as results:
            runs = json.load(results)["benchmarks"]
    except (OSError, ValueError, KeyError) as error:
        print("n/a")
        sys.exit("%s: %s" % (json_path, error))
    values = []
    for run in runs:
        if not run["name"].startswith(bench + "/"):
            continue
        if run.get("error_occurred"):
            print("n/a")
            sys.exit("%s: %s" % (bench, run.get("error_message", "failed")))
        if run.get("run_type", "iteration") == "iteration" and name in run:
            values.append(run[name])
    if not values:
        print("n/a")
        sys.exit("%s: no %s in %s" % (bench, name, json_path))
    print(form % statistics.median(values))


def main(argv):
    if len(argv) == 4 and argv[0] == "tree":
        make_tree(argv[1], int(argv[2]), int(argv[3]))
    elif len(argv) == 3 and argv[0] == "listing":
        write_listing(argv[1], int(argv[2]))
    elif len(argv) == 3 and argv[0] == "serve":
        serve(argv[1], argv[2])
    elif len(argv) == 5 and argv[0] == "counter":
        counter(argv[1], argv[2], argv[3], argv[4])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
