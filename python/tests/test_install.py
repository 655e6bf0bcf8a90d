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
        with open(os.path.join(SOURCE_DIR, "share/velmo/web/doc/css/velmo.css"), "rb") as source:
            assert page.read() == source.read()
    done = subprocess.run([sys.executable, "-c", f"""
import ivelmo, velmo
print("ANSWER", ivelmo.__file__, velmo.__file__,
      ivelmo.proxy("KXMemory", "127.0.0.1", {port}).pythonCall(["ping"]))
"""], cwd=tmp_path, env={"PATH": os.environ["PATH"], "PYTHONPATH": str(prefix / PYTHON_DIR)},
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    [(*files, answer)] = [line.split()[1:] for line in done.stdout.splitlines()
                          if line.startswith("ANSWER ")]
    assert [path.startswith(str(prefix / PYTHON_DIR)) for path in files] == [True, True]
    assert answer == "True"


def test_the_debian_package_holds_the_same_install(tmp_path):
    subprocess.run(["cpack", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"), "-B",
                    str(tmp_path)], check=True, capture_output=True, cwd=BUILD_DIR)
    [package] = [name for name in os.listdir(tmp_path) if name.endswith(".deb")]

    def dpkg_deb(option, *fields):
        return subprocess.run(["dpkg-deb", option, str(tmp_path / package), *fields],
                              check=True, capture_output=True, text=True).stdout

    files = {line.split()[-1] for line in dpkg_deb("-c").splitlines()}
    assert {"./usr/bin/velmo", "./usr/lib/libvelmo.so", "./usr/share/velmo/web/doc/css/velmo.css",
            *(f"./usr/lib/python3/dist-packages/{name}"
              for name in ("_ivelmo.so", "ivelmo.py", "velmo/__init__.py"))} <= files
    depends = dpkg_deb("-f", "Depends")
    assert "python3" in depends and "libgsoap" in depends
