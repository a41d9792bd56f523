"""kvt_zqp_record --listen on the simulated board: a real Prometheus server
scraping the endpoint (and node_exporter's textfile job beside it) and
answering the shipped Grafana dashboard's queries, a recording backfilled
into a real server, and the endpoint (its history too) under load and abuse on
loopback.

The dashboard's variables are substituted as Grafana does for a data source
scraping every second ($__rate_interval: four scrapes, $__range: the
dashboard's hour); each query is an instant query, a panel's latest point;
the board variable's label_values(metric, label) becomes a query for the
metric with the label of the target."""
import http.client
import json
import re
import resource
import shutil
import socket
import subprocess
import threading
import time
import urllib.parse
import urllib.request
from collections import Counter
from pathlib import Path

import pytest

from board_truth import check_loading, wall_to_monotonic
from conftest import REPO, SLOWDOWN, hang_bound
from recordings import MIB, Service, free_port, prom_samples, wait_until

DASHBOARD = REPO / "packaging" / "grafana" / "kvt_zqp.json"
RULES = REPO / "packaging" / "kvt_zqp.rules.yml"
DATASOURCE = {"type": "prometheus", "uid": "${datasource}"}

OPEN_METRICS = ("application/openmetrics-text;version=1.0.0,application/openmetrics-text;"
                "version=0.0.1;q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1")


def start_prometheus(tmp_path, config="", data=None):
    """A Prometheus server on 127.0.0.1 with scratch storage (or data), ready;
    skips without one."""
    binary = shutil.which("prometheus")
    if binary is None:
        pytest.skip("needs a Prometheus server (Debian package prometheus)")
    port, config_file = free_port(), tmp_path / "prometheus.yml"
    config_file.write_text(config or "scrape_configs: []\n")
    log = open(tmp_path / "prometheus.log", "w")
    server = subprocess.Popen([binary, f"--config.file={config_file}",
                               f"--storage.tsdb.path={data or tmp_path / 'tsdb'}",
                               f"--web.listen-address=127.0.0.1:{port}"],
                              stdout=log, stderr=log)

    def ready():
        try:
            return urllib.request.urlopen(f"http://127.0.0.1:{port}/-/ready", timeout=5).status
        except OSError:
            return None

    wait_until("Prometheus ready", 60, ready)
    return server, port


def query(port, expr, **params):
    """The API's answer to an instant query: [(labels without __name__, job
    and instance, name, job, values)]."""
    url = (f"http://127.0.0.1:{port}/api/v1/query?" +
           urllib.parse.urlencode(dict(params, query=expr)))
    answer = json.load(urllib.request.urlopen(url, timeout=30))
    assert answer["status"] == "success", answer
    out = []
    for series in answer["data"]["result"]:
        labels = dict(series["metric"])
        name, job = labels.pop("__name__", None), labels.pop("job", None)
        labels.pop("instance", None)
        values = series.get("values") or [series["value"]]
        out.append((tuple(sorted(labels.items())), name, job,
                    [(float(t), float(v)) for t, v in values]))
    return out


def panel_queries(instance):
    """[(panel title, query with the variables substituted)], the board
    variable's first, and the dashboard checked for import and provisioning."""
    board = json.loads(DASHBOARD.read_text())
    assert "__inputs" not in board and board["uid"] and board["title"] and board["tags"]
    variables = {v["name"]: v for v in board["templating"]["list"]}
    assert (variables["datasource"]["type"], variables["datasource"]["query"]) == (
        "datasource", "prometheus")
    assert variables["instance"]["datasource"] == DATASOURCE
    assert len({p["id"] for p in board["panels"]}) == len(board["panels"])
    values = {"instance": instance, "__interval": "1s", "__rate_interval": "4s",
              "__range": "3600s"}
    name, label = re.fullmatch(r"label_values\((\w+), (\w+)\)",
                               variables["instance"]["query"]["query"]).groups()
    out = [("Board variable", f'group by ({label}) ({name}{{{label}="{instance}"}})')]
    for p in board["panels"]:
        assert p["fieldConfig"]["defaults"]["unit"], p["title"]
        assert all(x["datasource"] == DATASOURCE for x in [p] + p["targets"]), p["title"]
        out += [(p["title"], re.sub(r"\$\{?(\w+)\}?", lambda m: values[m[1]], t["expr"]))
                for t in p["targets"]]
    return out


def test_dashboard_imports_with_recorded_series():
    # What the queries ask of a server: test_prometheus_scrapes_the_endpoint.
    recorded = set(re.findall(r"record: (\S+)", RULES.read_text()))
    used = {name for _, q in panel_queries("127.0.0.1:0")
            for name in re.findall(r"kvt_zqp:[\w:]+", q)}
    assert used and used <= recorded, used - recorded


def dashboard_answers(ask, instance, ddr_live):
    """(time, {panel title: {labels: value}}) of every query asked at one time
    (ask(query, time) gives query()'s answer), once each gives
    series (the DDR bandwidth while live, and none once not: the figures of
    the last scrapes before the tool died may still answer for a moment) and
    the DDR figures are live or not as wanted; else None."""
    at = time.time()
    got = {title: {labels: v[-1][1] for labels, _, _, v in ask(q, at)}
           for title, q in panel_queries(instance)}
    ready = got["DDR figures live"] == {(): ddr_live} and all(
        bool(answer) == (ddr_live or title != "DDR bandwidth") for title, answer in got.items())
    return ready and (at, got)


def check_dashboard(answers, t, r, delay_s, ddr_live=True):
    """A board's answers (dashboard_answers) against the scenario's truth, as
    check_exposed: the loading at the time of the record shown."""
    at, got = answers[0], dict(answers[1])
    age = got.pop("Age of the figures")[()]
    assert 0 <= age < hang_bound(10)
    rows = {dict(labels)["engine"] + dict(labels)["core"]: v * 100
            for labels, v in got.pop("Engine loading per core").items()}
    assert sorted(rows) == sorted(t["rows"])
    shown = wall_to_monotonic(at - age)
    assert check_loading(r.dsp().loading(t["loading"], shown, delay_s), t, rows.items()) == []
    pids, heaps = r.pids(), t["heaps"].items()
    want = {
        "Board variable": {(): 1},
        # No core of the board is over 95 % busy.
        "Saturated cores": {(("engine", re.sub(r"\d+$", "", row)),): 0 for row in t["rows"]},
        "DDR bandwidth": {(("direction", d),): t["ddr"][d] * MIB
                          for d in ("read", "write") if ddr_live},
        "ION heap used": {(("heap", h),): v["used"] / v["total"] for h, v in heaps},
        # Steady heaps: in an hour as now.
        "ION heap free in one hour, predicted": {
            (("heap", h),): v["total"] - v["used"] for h, v in heaps},
        "Largest ION holders": {(("name", n), ("pid", str(pids[n]))): p["ion_bytes"]
                                for n, p in t["processes"].items()},
        "DDR figures live": {(): int(ddr_live)}}
    assert got == {title: pytest.approx(w) for title, w in want.items()}


def test_prometheus_scrapes_the_endpoint(run_on_board, record_binary, truth, tmp_path):
    exporter = shutil.which("prometheus-node-exporter")
    if exporter is None:
        pytest.skip("needs prometheus-node-exporter (Debian package of that name)")
    t, folder, node_port = truth("full"), tmp_path / "textfile", free_port()
    folder.mkdir()
    node = subprocess.Popen([exporter, f"--web.listen-address=127.0.0.1:{node_port}",
                             "--collector.disable-defaults", "--collector.textfile",
                             f"--collector.textfile.directory={folder}"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    service = Service(run_on_board, tmp_path, record_binary,
                      ["-d", "500", "--processes", "--format", "prometheus", "-o",
                       folder / "kvt_zqp.prom"])
    jobs = {"kvt_zqp": service.port, "node": node_port}
    server, port = start_prometheus(tmp_path, "global: {scrape_interval: 1s, scrape_timeout: 1s, "
                                    f"evaluation_interval: 1s}}\nrule_files: ['{RULES}']\n"
                                    "scrape_configs:\n" + "".join(
                                        f"  - job_name: {job}\n    static_configs: [{{targets: "
                                        f"['127.0.0.1:{p}']}}]\n" for job, p in jobs.items()))
    try:
        # Both jobs up with every loading row; every panel of the dashboard
        # answered for each job, then again once the DDR tool is dead and
        # its figures are known not to be live.
        def all_rows():
            up = {job: v[-1][1] for _, _, job, v in query(port, "up")}
            return (up == {"kvt_zqp": 1, "node": 1} and
                    all(query(port, f'count(kvt_zqp_loading_ratio{{job="{job}"}}) == '
                                    f'{len(t["rows"])}') for job in jobs))

        def panels(ddr_live):
            return {job: wait_until("every panel answered", 60, lambda: dashboard_answers(
                lambda q, at: query(port, q, time=at), f"127.0.0.1:{p}", ddr_live))
                for job, p in jobs.items()}

        wait_until("both jobs up with every row", 60, all_rows)
        live_panels = panels(1)
        service.signal("kill-ddr")
        dead_panels = panels(0)
        up = {job: v[-1][1] for _, _, job, v in query(port, "up")}
        text = urllib.request.urlopen(f"http://127.0.0.1:{service.port}/metrics",
                                      timeout=30).read().decode()
    finally:
        r = service.stop()
        server.terminate()
        node.terminate()
        server.wait()
        node.wait()
    assert (r.returncode, r.stdout) == (0, ""), r.stderr
    assert (r.workdir / "ddr-killed").exists() and up == {"kvt_zqp": 1, "node": 1}
    # The panels give what the raw series would: loading, DDR, heaps, holders.
    for job in jobs:
        check_dashboard(live_panels[job], t, r, 0.5)
        check_dashboard(dead_panels[job], t, r, 0.5, ddr_live=False)
    # The scraper asked for OpenMetrics, which the server parsed; promtool
    # lints the text format.
    check = subprocess.run([shutil.which("promtool"), "check", "metrics"], input=text,
                           capture_output=True, text=True)
    assert (check.returncode, check.stdout, check.stderr) == (0, "", "")


def test_recording_backfills_a_real_server(run_on_board, record_binary, tmp_path):
    """A 60-record OpenMetrics recording made into blocks by promtool: a server
    started on them has every recorded value at its time."""
    promtool = shutil.which("promtool")
    if not promtool:
        pytest.skip("needs promtool (Debian package prometheus)")
    out, data, n = tmp_path / "run.om", tmp_path / "data", 60
    r = run_on_board("full", [record_binary, "--format", "openmetrics", "--processes", "-d", "200",
                              "-n", str(n), "-o", out])
    assert (r.returncode, r.stderr) == (0, ""), r.stderr
    made = subprocess.run([promtool, "tsdb", "create-blocks-from", "openmetrics", out, data],
                          capture_output=True, text=True, timeout=120)
    assert made.returncode == 0, made.stderr
    written = sorted((name, labels, ts, v) for (name, labels), ts, v in
                     om_samples(out.read_text()))
    last = max(ts for _, _, ts, _ in written)
    server, port = start_prometheus(tmp_path, data=data)
    try:
        stored = sorted((name, labels, ts, v) for labels, name, _, values in
                        query(port, '{__name__=~"kvt_zqp_.+"}[1d]', time=last + 1)
                        for ts, v in values)
    finally:
        server.terminate()
        server.wait()
    assert stored == written
    # Every series in every record from its first on, declared once. Only the
    # sampled loading and the DDR bandwidth may start late: the recorder leaves
    # them out until it can vouch for them (the DDR tool's first answer can
    # come after the first records on a busy machine).
    times = sorted(ts for name, _, ts, _ in written if name == "kvt_zqp_elapsed_seconds")
    per_series = {}
    for name, labels, ts, _ in written:
        per_series.setdefault((name, labels), []).append(ts)
    assert len(times) == n and len(per_series) > 20, per_series
    for (name, labels), stamps in per_series.items():
        assert sorted(stamps) == times[times.index(min(stamps)):], (name, labels)
    late = {name for (name, _), stamps in per_series.items() if len(stamps) < n}
    assert late <= {"kvt_zqp_loading_ratio", "kvt_zqp_ddr_bandwidth_bytes_per_second"}, late
    assert out.read_text().count("# TYPE kvt_zqp_loading_ratio gauge") == 1


def om_samples(text):
    """[((name, labels), timestamp, value)] of an OpenMetrics recording."""
    assert text.endswith("\n# EOF\n")
    fields = [line.rsplit(" ", 2) for line in text.splitlines() if not line.startswith("#")]
    return [(*prom_samples(f"{name_labels} {v}"), float(stamp), float(v))
            for name_labels, v, stamp in fields]


def scrape(connection, accept):
    """One GET /metrics on a kept connection: (status, body)."""
    connection.request("GET", "/metrics", headers={"Accept": accept})
    response = connection.getresponse()
    return response.status, response.read().decode()


def raw(port, request, timeout=10):
    """A request as bytes on a new connection: the status line of the answer,
    or "" when the server closed without one."""
    with socket.create_connection(("127.0.0.1", port), timeout=hang_bound(timeout)) as s:
        s.sendall(request)
        return s.recv(4096).split(b"\r\n")[0].decode()


def test_endpoint_under_load_and_abuse(run_on_board, record_binary, tmp_path):
    service = Service(run_on_board, tmp_path, record_binary, ["-d", "500", "-o",
                                                              tmp_path / "run.csv"])
    failures, counts = [], []
    try:
        def answering():
            try:
                return raw(service.port, b"GET / HTTP/1.0\r\n\r\n") == "HTTP/1.1 200 OK"
            except OSError:
                return False

        wait_until("the endpoint answering", 60, answering)

        # 20 scrapers at 10 Hz for a minute, each on one kept connection, half
        # asking for OpenMetrics as Prometheus does.
        def scraper(i):
            accept = OPEN_METRICS if i % 2 else "text/plain"
            connection = http.client.HTTPConnection("127.0.0.1", service.port,
                                                    timeout=hang_bound(10))
            n, start = 0, time.monotonic()
            while time.monotonic() - start < 60:
                try:
                    status, body = scrape(connection, accept)
                    if status != 200 or "\nkvt_zqp_heap_size_bytes{" not in body or (
                            i % 2 and not body.endswith("\n# EOF\n")):
                        failures.append((i, status, body[-200:]))
                except (OSError, http.client.HTTPException) as e:
                    failures.append((i, repr(e)))
                    connection.close()
                n += 1
                time.sleep(max(0.0, start + n * 0.1 - time.monotonic()))
            counts.append(n)
            connection.close()

        # And 20 pages on another address (each address may hold 32
        # connections) polling the history at the interval, each from its
        # latest record on: each must hold every record, in order.
        polled = []

        def poller(i):
            connection, since, got = http.client.HTTPConnection(
                "127.0.0.1", service.port, timeout=hang_bound(10),
                source_address=("127.0.0.2", 0)), None, []
            start = time.monotonic()
            while time.monotonic() - start < 60:
                try:
                    connection.request("GET", "/api/v1/history" + (
                        "" if since is None else f"?since={since}"))
                    answer = json.load(connection.getresponse())
                    got += [r["elapsed_s"] for r in answer["records"]]
                    since = answer["latest_elapsed_ms"]
                except (OSError, http.client.HTTPException, ValueError) as e:
                    failures.append(("page", i, repr(e)))
                    connection.close()
                time.sleep(0.5)
            polled.append(got)
            connection.close()

        threads = [threading.Thread(target=scraper, args=(i,)) for i in range(20)] + [
            threading.Thread(target=poller, args=(i,)) for i in range(20)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        every = [r["elapsed_s"] for r in json.load(urllib.request.urlopen(
            f"http://127.0.0.1:{service.port}/api/v1/history", timeout=hang_bound(10)))["records"]]
        assert (failures, len(counts), len(polled)) == ([], 20, 20)
        assert all(got == every[:len(got)] and len(got) > len(every) - 4 for got in polled)

        # Bad requests get their 4xx or 5xx and change nothing (the unit test
        # pins the other statuses' answers).
        before = prom_samples(scrape(http.client.HTTPConnection(
            "127.0.0.1", service.port, timeout=hang_bound(10)), "text/plain")[1])
        bad = [raw(service.port, request) for request in (
            b"GET /" + b"m" * 20000 + b" HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /metrics\r\n\r\n", b"GET /metrics HTTP/7.1\r\n\r\n",
            b"GET /api/v1/history?since=1e3 HTTP/1.1\r\nHost: x\r\n\r\n",
            b"GET /api/v1/history?since=" + b"9" * 5000 + b" HTTP/1.1\r\nHost: x\r\n\r\n")]
        after = prom_samples(scrape(http.client.HTTPConnection(
            "127.0.0.1", service.port, timeout=hang_bound(10)), "text/plain")[1])
    finally:
        r = service.stop()
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert bad == ["HTTP/1.1 414 URI Too Long", "HTTP/1.1 400 Bad Request",
                   "HTTP/1.1 505 HTTP Version Not Supported", "HTTP/1.1 400 Bad Request",
                   "HTTP/1.1 400 Bad Request"]
    assert set(before) == set(after) and len(before) > 20


def test_trickling_clients_of_one_address(run_on_board, record_binary, tmp_path):
    """512 connections from 127.0.0.2 sending a request a byte every 9 s, under
    the 10 s idle timeout: 32 are taken, the others closed before their second
    byte, and those 32 closed by the request deadline before their third. A scraper on
    127.0.0.3 is answered within a second throughout, and the recorder's
    memory stays within what 32 connections take."""
    nofile = resource.getrlimit(resource.RLIMIT_NOFILE)
    if nofile[1] != resource.RLIM_INFINITY and nofile[1] < 600:
        pytest.skip(f"needs 600 descriptors, the hard limit is {nofile[1]}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(nofile[0], 600), nofile[1]))
    service = Service(run_on_board, tmp_path, record_binary, ["-d", "500"])
    sockets, closed_in, latencies, rss = [], {}, [], []
    try:
        wait_until("the endpoint answering", 60, lambda: scrape_from(service.port, 3)[0] == 200)
        pid = recorder_pid(service.port)
        maps = Path(f"/proc/{pid}/maps").read_text()

        def sample():
            for _ in range(3):
                latencies.append(scrape_from(service.port, 3))
            rss.append(int(re.search(r"VmRSS:\s+(\d+)", Path(
                f"/proc/{pid}/status").read_text())[1]))

        sample()
        start = time.monotonic()
        for _ in range(512):
            sockets.append(socket.create_connection(("127.0.0.1", service.port), hang_bound(30),
                                                    ("127.0.0.2", 0)))
            sockets[-1].settimeout(None)
        for n in range(3):
            time.sleep(max(0.0, start + 9 * n - time.monotonic()))
            for i, s in enumerate(sockets):
                if i not in closed_in and not trickle(s, b"GET /metrics HTTP/1.1\r\n"[n:n + 1]):
                    closed_in[i] = n
            sample()
    finally:
        for s in sockets:
            s.close()
        resource.setrlimit(resource.RLIMIT_NOFILE, nofile)
        r = service.stop()
    print(f"scrapes: {max(t for _, t in latencies):.3f} s at most; "
          f"RSS {rss[0]} KiB before, {rss[1:]} KiB at each round")
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    # Found closed before the second byte (at once or within 9 s), or between
    # the second and the third.
    assert Counter(max(n, 1) for n in closed_in.values()) == Counter({1: 480, 2: 32})
    assert [status for status, _ in latencies] == [200] * 12
    assert max(t for _, t in latencies) < hang_bound(1)
    # 32 connections' pools of 16 KiB, four times over for the allocator;
    # stretched for an emulator's translations, and for a sanitizer, whose
    # own memory grows as the program runs (about 6 MiB in these 20 s).
    sanitized = "libtsan" in maps or "libasan" in maps
    assert max(rss) - rss[0] < 32 * 16 * 4 * SLOWDOWN * (8 if sanitized else 1)


def scrape_from(port, host):
    """GET /metrics on a new connection from 127.0.0.<host>: (status, seconds)."""
    start = time.monotonic()
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=hang_bound(10),
                                            source_address=(f"127.0.0.{host}", 0))
    try:
        status = scrape(connection, "text/plain")[0]
    except (OSError, http.client.HTTPException):
        status = None
    connection.close()
    return status, time.monotonic() - start


def trickle(s, byte):
    """Sends byte on s unless the server has closed it: whether it had not."""
    try:
        if s.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b"":
            return False
    except BlockingIOError:
        pass
    except OSError:
        return False
    try:
        return s.send(byte) == 1
    except OSError:
        return False


def recorder_pid(port):
    """The process listening with --listen 127.0.0.1:port, seen from here."""
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            argv = path.read_bytes().split(b"\0")
        except OSError:
            continue
        if f"127.0.0.1:{port}".encode() in argv and b"--listen" in argv:
            return int(path.parent.name)
    pytest.fail(f"no process listens with --listen 127.0.0.1:{port}")
