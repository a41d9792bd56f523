"""The shipped Grafana dashboard: what import and provisioning need, its
queries parsed by promtool, and each answered by a real Prometheus server
(the shipped rules loaded) scraping the recorder on the simulated board, as
the board's truth wants.

Variables are substituted as Grafana does for a data source scraping every
second: $instance and ${instance} the scrape target, $__interval 1s,
$__rate_interval 4s (four scrapes), $__range 30s (the time range). Each query
runs as an instant query, a panel's latest point."""
import json
import re
import shutil
import subprocess
import time
import urllib.parse
import urllib.request

import pytest

from board_truth import check_loading, wall_to_monotonic
from conftest import REPO, hang_bound
from recordings import MIB
from test_endpoint import Service, query, start_prometheus, wait_until

DASHBOARD = REPO / "packaging" / "grafana" / "kvt_zqp.json"
RULES = REPO / "packaging" / "kvt_zqp.rules.yml"
DATASOURCE = {"type": "prometheus", "uid": "${datasource}"}


def panel_queries(instance):
    """[(panel title, query with the variables substituted)], and the board
    checked for import and provisioning; the board variable's query too."""
    board = json.loads(DASHBOARD.read_text())
    assert "__inputs" not in board and board["uid"] and board["title"] and board["tags"]
    variables = {v["name"]: v for v in board["templating"]["list"]}
    assert (variables["datasource"]["type"], variables["datasource"]["query"]) == (
        "datasource", "prometheus")
    assert variables["instance"]["datasource"] == DATASOURCE
    assert len({p["id"] for p in board["panels"]}) == len(board["panels"])
    values = {"instance": instance, "__interval": "1s", "__rate_interval": "4s", "__range": "30s"}
    out = [("board variable", variables["instance"]["query"]["query"])]
    for p in board["panels"]:
        assert p["fieldConfig"]["defaults"]["unit"], p["title"]
        assert all(x["datasource"] == DATASOURCE for x in [p] + p["targets"]), p["title"]
        out += [(p["title"], re.sub(r"\$\{?(\w+)\}?", lambda m: values[m[1]], t["expr"]))
                for t in p["targets"]]
    return out


def test_dashboard_queries_answer_the_truth(run_on_board, record_binary, truth, tmp_path):
    promtool = shutil.which("promtool")
    if promtool is None:
        pytest.skip("needs promtool (Debian package prometheus)")
    queries = panel_queries("127.0.0.1:0")[1:]
    recorded = set(re.findall(r"record: (\S+)", RULES.read_text()))
    used = {name for _, q in queries for name in re.findall(r"kvt_zqp:[\w:]+", q)}
    assert used and used <= recorded, used - recorded
    # Each query made a recording rule, for promtool to parse.
    rules = tmp_path / "queries.yml"
    rules.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": [
        {"record": f"dashboard:query{i}", "expr": q} for i, (_, q) in enumerate(queries)]}]}))
    check = subprocess.run([promtool, "check", "rules", rules], capture_output=True, text=True)
    assert check.returncode == 0, check.stdout + check.stderr

    t = truth("full")
    service = Service(run_on_board, tmp_path, record_binary, ["-d", "500", "--processes"])
    instance = f"127.0.0.1:{service.port}"
    (variable, variable_query), *queries = panel_queries(instance)
    server, port = start_prometheus(
        tmp_path, "global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}\n"
        f"rule_files: ['{RULES}']\nscrape_configs:\n  - job_name: kvt_zqp\n"
        f"    static_configs: [{{targets: ['{instance}']}}]\n")
    try:
        def answered():
            at = time.time()
            got = {title: {labels: v[-1][1] for labels, _, _, v in query(port, q, time=at)}
                   for title, q in queries}
            return (all(got.values()) and got["DDR figures live"] == {(): 1} and
                    len(got["Engine loading per core"]) == len(t["rows"]) and (at, got))

        at, got = wait_until("every panel's query answered", 60, answered)
        name, label = re.fullmatch(r"label_values\((\w+), (\w+)\)", variable_query).groups()
        boards = json.load(urllib.request.urlopen(
            f"http://127.0.0.1:{port}/api/v1/label/{label}/values?" +
            urllib.parse.urlencode({"match[]": name}), timeout=30))["data"]
    finally:
        r = service.stop()
        server.terminate()
        server.wait()
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert boards == [instance]
    # The loading rows as the report has them, at the time of the record shown.
    age = got.pop("Age of the figures")[()]
    assert 0 <= age < hang_bound(5)
    rows = {dict(labels)["engine"] + dict(labels)["core"]: v * 100
            for labels, v in got.pop("Engine loading per core").items()}
    assert sorted(rows) == sorted(t["rows"])
    shown = wall_to_monotonic(at - age)
    assert check_loading(r.dsp().loading(t["loading"], shown, 0.5), t, rows.items()) == []
    pids, heaps = r.pids(), t["heaps"].items()
    want = {
        # No core of the board is over 95 % busy.
        "Saturated cores": {(("engine", re.sub(r"\d+$", "", row)),): 0 for row in t["rows"]},
        "DDR bandwidth": {(("direction", d),): t["ddr"][d] * MIB for d in ("read", "write")},
        "ION heap used": {(("heap", h),): v["used"] / v["total"] for h, v in heaps},
        # Steady heaps: in an hour as now.
        "ION heap free in one hour, predicted": {
            (("heap", h),): v["total"] - v["used"] for h, v in heaps},
        "Largest ION holders": {(("name", n), ("pid", str(pids[n]))): p["ion_bytes"]
                                for n, p in t["processes"].items()},
        "DDR figures live": {(): 1}}
    assert got == {title: pytest.approx(w) for title, w in want.items()}
