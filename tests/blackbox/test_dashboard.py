"""The shipped Grafana dashboard: what import and provisioning need, its
queries parsed by promtool, and what a correct board's answers to them are
(test_endpoint.py asks a real Prometheus server, the shipped rules loaded,
scraping the recorder on the simulated board through both routes).

Variables are substituted as Grafana does for a data source scraping every
second: $instance and ${instance} the scrape target, $__interval 1s,
$__rate_interval 4s (four scrapes), $__range 3600s (the dashboard's hour).
Each query runs as an instant query at one time, a panel's latest point; the
board variable's label_values(metric, label) becomes a query for the metric
with the label of the target."""
import json
import re
import shutil
import subprocess
import time

import pytest

from board_truth import check_loading, wall_to_monotonic
from conftest import REPO, hang_bound
from recordings import MIB

DASHBOARD = REPO / "packaging" / "grafana" / "kvt_zqp.json"
RULES = REPO / "packaging" / "kvt_zqp.rules.yml"
DATASOURCE = {"type": "prometheus", "uid": "${datasource}"}


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


def test_dashboard_imports_and_parses(tmp_path):
    queries = panel_queries("127.0.0.1:0")
    recorded = set(re.findall(r"record: (\S+)", RULES.read_text()))
    used = {name for _, q in queries for name in re.findall(r"kvt_zqp:[\w:]+", q)}
    assert used and used <= recorded, used - recorded
    promtool = shutil.which("promtool")
    if promtool is None:
        pytest.skip("needs promtool (Debian package prometheus)")
    # Each query made a recording rule, for promtool to parse.
    rules = tmp_path / "queries.yml"
    rules.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": [
        {"record": f"dashboard:query{i}", "expr": q} for i, (_, q) in enumerate(queries)]}]}))
    check = subprocess.run([promtool, "check", "rules", rules], capture_output=True, text=True)
    assert check.returncode == 0, check.stdout + check.stderr


def dashboard_answers(ask, instance, ddr_live):
    """(time, {panel title: {labels: value}}) of every query asked at one time
    (ask(query, time) gives test_endpoint.query()'s answer), once each gives
    series (the DDR bandwidth only while live) and the DDR figures are live
    or not as wanted; else None."""
    at = time.time()
    got = {title: {labels: v[-1][1] for labels, _, _, v in ask(q, at)}
           for title, q in panel_queries(instance)}
    ready = got["DDR figures live"] == {(): ddr_live} and all(
        answer or (title == "DDR bandwidth" and not ddr_live) for title, answer in got.items())
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
