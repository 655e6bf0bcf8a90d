"""The project installed as Debian software: into a prefix of the test's own, and as the
Debian package made from the same rules."""
import os
import subprocess
import sys
import urllib.request

from conftest import BIN_DIR, LISTENING

BUILD_DIR = os.path.dirname(BIN_DIR)
SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
PYTHON_DIR = os.path.join("lib", "python3", "dist-packages")


def test_an_installed_tree_serves_its_pages_and_python_runs_from_elsewhere(tmp_path,
                                                                             start_program):
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", str(prefix)], check=True,
                   capture_output=True)
    root = start_program([str(prefix / "bin" / "velmo"), "--name", "installed", "--ip",
                          "127.0.0.1", "--port", "0"])
    port = int(root.wait_for(LISTENING).group(1))
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/css/velmo.css", timeout=30) as page:
        with open(os.path.join(SOURCE_DIR, "share", "velmo", "web", "doc", "css",
                               "velmo.css"), "rb") as source:
            assert page.read() == source.read()
    program = f"""
import ivelmo, velmo
print("FILES", ivelmo.__file__, velmo.__file__)
print("ANSWER", ivelmo.proxy("KXMemory", "127.0.0.1", {port}).pythonCall(["ping"]))
"""
    env = {"PATH": os.environ["PATH"], "PYTHONPATH": str(prefix / PYTHON_DIR)}
    done = subprocess.run([sys.executable, "-c", program], cwd=tmp_path, env=env,
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    said = dict(line.split(" ", 1) for line in done.stdout.splitlines()
                if line.startswith(("FILES ", "ANSWER ")))
    assert all(path.startswith(str(prefix / PYTHON_DIR)) for path in said["FILES"].split())
    assert said["ANSWER"] == "True"


def test_the_debian_package_holds_the_same_install(tmp_path):
    subprocess.run(["cpack", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"), "-B",
                    str(tmp_path)], check=True, capture_output=True, cwd=BUILD_DIR)
    [package] = [name for name in os.listdir(tmp_path) if name.endswith(".deb")]
    listing = subprocess.run(["dpkg-deb", "-c", str(tmp_path / package)], check=True,
                             capture_output=True, text=True).stdout
    files = {line.split()[-1] for line in listing.splitlines()}
    for expected in ["./usr/bin/velmo", "./usr/lib/libvelmo.so",
                     "./usr/lib/python3/dist-packages/_ivelmo.so",
                     "./usr/lib/python3/dist-packages/ivelmo.py",
                     "./usr/lib/python3/dist-packages/velmo/__init__.py",
                     "./usr/share/velmo/web/doc/css/velmo.css"]:
        assert expected in files
    depends = subprocess.run(["dpkg-deb", "-f", str(tmp_path / package), "Depends"], check=True,
                             capture_output=True, text=True).stdout
    assert "python3" in depends and "libgsoap" in depends
