"""deploy/monitoring, used by Prometheus, node_exporter and promtool."""

import contextlib
import datetime
import http.server
import json
import re
import shlex
import shutil
import socket
import subprocess
import threading
import time
import urllib.error
import urllib.parse
import urllib.request
import xml.etree.ElementTree

import pytest

from . import metrics_text
from .platforms import ROOT, wait_until
from .status_tool import HOUR, OK, SECONDS, make_older, result, run_bare, status, write_result

MONITORING = ROOT / "deploy/monitoring"
RULES = MONITORING / "kydloguploader.rules.yml"
DASHBOARD = json.loads((MONITORING / "kydloguploader.dashboard.json").read_text("utf-8"))
# The values of the dashboard's variables for "All".
CHOSEN = {"$job": ".*", "$instance": ".*", "$log_dir": ".*"}


def tool(name):
    found = shutil.which(name)
    if found is None:
        pytest.skip(f"{name} is not installed: ./dev setup --monitoring")
    return found


def expressions():
    return [(panel["title"], target["expr"])
            for panel in DASHBOARD["panels"] for target in panel["targets"]]


# Without servers.


def test_rules_are_valid():
    finished = subprocess.run([tool("promtool"), "check", "rules", "--lint=all", "--lint-fatal", RULES],
                              capture_output=True, text=True, timeout=SECONDS, check=False)
    assert finished.returncode == 0 and "7 rules found" in finished.stdout, finished


def test_alerts_are_raised_when_they_should_be():
    file = ROOT / "tests/e2e/alerts_test.yml"
    finished = subprocess.run([tool("promtool"), "test", "rules", file],
                              capture_output=True, text=True, timeout=SECONDS, check=False)
    assert finished.returncode == 0, finished.stdout + finished.stderr
    # Every alert is raised in at least one of the tests.
    raised = set(re.findall(r"alertname: (\w+)\n +exp_alerts:\n", file.read_text("utf-8")))
    assert raised == set(re.findall(r"alert: (\w+)", RULES.read_text("utf-8")))


def test_dashboard_is_consistent():
    panels = DASHBOARD["panels"]
    assert len({panel["id"] for panel in panels}) == len(panels)
    taken = set()
    for panel in panels:
        place = panel["gridPos"]
        cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                 for y in range(place["y"], place["y"] + place["h"])}
        assert not cells & taken and place["x"] + place["w"] <= 24, panel["title"]
        taken |= cells
        assert panel["title"] and panel["description"].endswith(".")
        names = [target["refId"] for target in panel["targets"]]
        assert len(set(names)) == len(names)
        # Tables rename and format only columns that exist.
        shown = {f"Value #{name}" for name in names} | {"job", "instance", "log_dir", "account"}
        for step in panel.get("transformations", []):
            assert step["options"].get("renameByName", {}).keys() <= shown
    variables = {variable["name"] for variable in DASHBOARD["templating"]["list"]}
    used = re.findall(r"\$\{?(\w+)", json.dumps(DASHBOARD))
    assert set(used) - {"__all"} == variables


def test_dashboard_has_the_types_of_grafana(tmp_path):
    modules = ROOT / "build/npm/node_modules"
    compiler = modules / "typescript/bin/tsc"
    if not compiler.exists() or not (modules / "@grafana/schema").exists():
        pytest.skip("Grafana's types are not installed: ./dev setup --monitoring")
    node = tool("node")
    (tmp_path / "node_modules").symlink_to(modules)

    def complaints(dashboard):
        # In JSON, enumerators are plain strings.
        (tmp_path / "board.ts").write_text(
            'import type { Dashboard } from "@grafana/schema";\n'
            "type Plain<T> = T extends string ? `${T}` : T extends (infer U)[] ? Plain<U>[]\n"
            "  : T extends object ? { [K in keyof T]: Plain<T[K]> } : T;\n"
            f"export const board: Plain<Dashboard> = {json.dumps(dashboard, indent=1)};\n", "utf-8")
        finished = subprocess.run(
            [node, compiler, "--noEmit", "--skipLibCheck", "--strict", "--module", "nodenext",
             "--moduleResolution", "nodenext", "board.ts"],
            cwd=tmp_path, capture_output=True, text=True, timeout=SECONDS, check=False)
        return finished.stdout + finished.stderr

    installed = json.loads((modules / "@grafana/schema/package.json").read_text("utf-8"))["version"]
    documented = re.search(r"is for Grafana (\d+),", (ROOT / "deploy/README.md").read_text("utf-8"))[1]
    assert installed.partition(".")[0] == documented
    assert complaints(DASHBOARD) == ""
    assert "DashboardCursorSync" in complaints({**DASHBOARD, "graphTooltip": "shared"})


# The examples that update the metrics after every run.


def writes_metrics(machine, arguments, target):
    """Runs the example's arguments with the test's log directory and output file."""
    path = machine.folder / target.replace("\\", "/").rsplit("/", 1)[-1]
    assert path.suffix == ".prom"
    places = {"${LOG_DIR}": machine.native(), "C:\\KydLog": machine.native(),
              target: machine.platform.native_path(path)}
    finished = run_bare(machine, *(places.get(argument, argument) for argument in arguments))
    assert (finished.code, finished.errors) == (OK, "")
    assert metrics_text.read(path.read_bytes()).value("accounts") == 1


def test_service_writes_metrics_after_every_run(machine):
    machine.account("alice")
    lines = (MONITORING / "metrics.conf").read_text("ascii").splitlines()
    (call,) = (line.partition("=")[2] for line in lines if line.startswith("ExecStopPost="))
    program, *arguments = shlex.split(call)
    # The "-" ignores failures: a full disk or an unreadable file does not fail the run.
    assert program.startswith("-/") and program.endswith("/KydUploadStatus")
    folder = arguments[-1].rpartition("/")[0]
    assert f"ReadWritePaths=-{folder}" in lines
    writes_metrics(machine, arguments, arguments[-1])


def test_task_writes_metrics_after_every_run(machine):
    machine.account("alice")
    text = (ROOT / "deploy/README.md").read_text("utf-8")
    (shown,) = re.findall(r"```xml\n(<Exec>.*?</Exec>)\n```", text, re.DOTALL)
    action = xml.etree.ElementTree.fromstring(shown)
    assert [child.tag for child in action] == ["Command", "Arguments"]
    assert action.find("Command").text.endswith('\\KydUploadStatus.exe"')
    # Windows rules: a backslash is an ordinary character.
    arguments = [one.strip('"') for one in shlex.split(action.find("Arguments").text, posix=False)]
    writes_metrics(machine, arguments, arguments[-1])


# With servers.


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def fetch(url):
    with contextlib.suppress(urllib.error.HTTPError):
        with urllib.request.urlopen(url, timeout=SECONDS) as answer:
            return answer.read().decode("utf-8")
    return None


def answers(url):
    try:
        return fetch(url) is not None
    except OSError:
        return False


@contextlib.contextmanager
def started(url, *arguments, folder):
    """Starts a server and waits until it answers at that address."""
    with open(folder / f"{arguments[0].rsplit('/', 1)[-1]}.log", "wb") as log:
        process = subprocess.Popen([*map(str, arguments)], cwd=folder, stdin=subprocess.DEVNULL,
                                   stdout=log, stderr=log)
    try:
        assert wait_until(lambda: answers(url), SECONDS), log.name
        yield
    finally:
        process.terminate()
        process.wait(SECONDS)


@contextlib.contextmanager
def served_as_openmetrics(path):
    """Serves the file with the OpenMetrics content type."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            content = path.read_bytes()
            self.send_response(200)
            self.send_header("Content-Type", "application/openmetrics-text; version=1.0.0; charset=utf-8")
            self.send_header("Content-Length", str(len(content)))
            self.end_headers()
            self.wfile.write(content)

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield server.server_address[1]
    finally:
        server.shutdown()
        thread.join()
        server.server_close()


class Prometheus:
    def __init__(self, port):
        self.address = f"http://127.0.0.1:{port}"

    def get(self, path, **query):
        answer = fetch(f"{self.address}/api/v1/{path}?{urllib.parse.urlencode(query)}")
        assert answer is not None, query
        answer = json.loads(answer)
        assert answer["status"] == "success" and not answer.get("warnings"), answer
        return answer["data"]

    def values(self, expression):
        """Evaluates an expression: labels, except the exporter's own, to value."""
        return {
            frozenset((name, value) for name, value in one["metric"].items()
                      if name not in ("job", "instance")): float(one["value"][1])
            for one in self.get("query", query=expression)["result"]
        }

    def targets_are_scraped(self):
        targets = self.get("targets")["activeTargets"]
        assert not [one["lastError"] for one in targets if one["lastError"]], targets
        # A target is up a moment before the samples of its scrape can be queried.
        return (len(targets) == 2 and all(one["health"] == "up" for one in targets)
                and list(self.values("sum(up)").values()) == [2])


@contextlib.contextmanager
def scraped(folder, directly):
    """Starts Prometheus with our rules; it scrapes node_exporter over the folder, and one file directly."""
    prometheus, exporter = tool("prometheus"), tool("prometheus-node-exporter")
    ports = free_port(), free_port()
    node = f"127.0.0.1:{ports[0]}"
    with contextlib.ExitStack() as stack:
        own = stack.enter_context(served_as_openmetrics(directly))
        stack.enter_context(started(
            f"http://{node}/metrics", exporter, "--collector.disable-defaults", "--collector.textfile",
            f"--collector.textfile.directory={folder}", f"--web.listen-address={node}",
            folder=folder,
        ))
        configuration = folder / "prometheus.yml"
        configuration.write_text(json.dumps({  # JSON is valid YAML
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [str(RULES)],
            "scrape_configs": [
                {"job_name": "node", "static_configs": [{"targets": [node]}]},
                {"job_name": "file", "static_configs": [{"targets": [f"127.0.0.1:{own}"]}]},
            ],
        }), "utf-8")
        stack.enter_context(started(
            f"http://127.0.0.1:{ports[1]}/-/ready", prometheus, f"--config.file={configuration}",
            f"--storage.tsdb.path={folder / 'data'}", f"--web.listen-address=127.0.0.1:{ports[1]}",
            folder=folder,
        ))
        server = Prometheus(ports[1])
        assert wait_until(server.targets_are_scraped, SECONDS)
        yield server


def trees(machine):
    """Creates two log directories with all kinds of content; the first is the machine's own."""
    names = ["alice", "b o b"]
    if machine.platform.name == "linux":
        names += ['"q"', "back\\slash", "line\nfeed", "\udcff", "\udcfe"]
    for name in names:
        machine.account(name, seal=False)
        machine.log(name, "a.log", b"12345")
    make_older(machine, "alice", "a.log", 30 * HOUR)
    today = datetime.date.today()
    write_result(machine, today, result(today, 5, 3, [("alice", 3)]), result(today, 1, 1)[:-2])
    other = machine.folder / "other logs"
    (other / "Upload" / "alice").mkdir(parents=True)
    return {"first.prom": machine.log_dir, "second.prom": other}


def test_prometheus_reads_the_metrics_and_the_dashboard_finds_them(machine):
    tool("prometheus")
    folder = machine.folder / "textfile"
    folder.mkdir()
    written = {}
    for name, log_dir in trees(machine).items():
        path = folder / name
        finished = status(machine, "--openmetrics", machine.platform.native_path(path), "--per-account",
                          log_dir=log_dir)
        assert (finished.code, finished.errors) == (OK, "")
        written[name] = metrics_text.read(path.read_bytes())
    with scraped(folder, folder / "first.prom") as server:
        assert list(server.values("node_textfile_scrape_error").values()) == [0]
        assert len(server.values("node_textfile_mtime_seconds")) == 2
        # Exactly the written samples have arrived, with their labels.
        for job, files in {"node": ("first.prom", "second.prom"), "file": ("first.prom",)}.items():
            wanted = {frozenset({("__name__", name), *labels}): value for file in files
                      for (name, labels), value in written[file].samples.items()}
            assert server.values(f'{{job="{job}", __name__=~"kydloguploader_.+"}}') == wanted
        said = server.get("metadata")
        for name, texts in written["first.prom"].said.items():
            kinds = {(one["type"], one["help"]) for one in said[name]}
            assert kinds == {("gauge", texts["HELP"])}
        ask_as_the_dashboard_does(server)
        rules = server.get("rules")["groups"][0]["rules"]
        assert wait_until(lambda: all(
            one["health"] == "ok" for one in server.get("rules")["groups"][0]["rules"]), SECONDS), rules
        states = {one["name"]: one["state"] for one in server.get("rules")["groups"][0]["rules"]}
        assert states["KydLogUploaderFilesWaitTooLong"] == "pending"
        assert states["KydLogUploaderCredentialsMissing"] == "pending"
        assert states["KydLogUploaderMetricsStale"] == "inactive"


def ask_as_the_dashboard_does(server):
    now = time.time()
    for title, expression in expressions():
        for name, value in CHOSEN.items():
            expression = expression.replace(name, value)
        assert "$" not in expression, expression
        # increase() needs more than one sample.
        assert wait_until(lambda: server.get("query", query=expression)["result"], SECONDS), (
            f"{title}: {expression} returns nothing")
        assert server.get("query_range", query=expression, start=now - 60, end=now, step=15)
    for variable in DASHBOARD["templating"]["list"]:
        if variable["type"] != "query":
            continue
        selector, label = re.fullmatch(
            r"label_values\((.+), (\w+)\)", variable["query"]["query"]).groups()
        for name, value in CHOSEN.items():
            selector = selector.replace(name, value)
        assert server.get(f"label/{label}/values", **{"match[]": selector})


def test_names_in_rules_and_dashboard_exist_in_the_metrics(machine):
    path = machine.folder / "x.prom"
    assert status(machine, "--openmetrics", machine.platform.native_path(path), "--per-account").code == OK
    written = metrics_text.read(path.read_bytes()).said.keys()
    for file in MONITORING.iterdir():
        if file.suffix in (".json", ".yml"):
            used = set(re.findall(r"kydloguploader_\w+", file.read_text("utf-8")))
            assert used and used <= written, used - written
