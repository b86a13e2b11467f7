"""Each departure from the plan that check-structure is there for, in a small tree made up for it."""
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CHECK = os.path.join(HERE, "check-structure")


def problems(files):
    """What the check tells of a tree of these files ({path: text}), but for the arrows that so small a tree lacks."""
    with tempfile.TemporaryDirectory() as root:
        for path, text in files.items():
            os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                file.write(text)
        run = subprocess.run([sys.executable, "-B", CHECK, root], capture_output=True, text=True, check=False)
        told = run.stdout.splitlines()
        if run.stderr or (run.returncode == 0) == bool(told):
            raise AssertionError(f"exit status {run.returncode}\n{run.stdout}{run.stderr}")
        return [line for line in told if not line.startswith("ARROWS: nothing")]


def include(*headers):
    return "".join(f'#include "{header}"\n' for header in headers)


class StructureTest(unittest.TestCase):
    def test_faults_are_told_with_their_place(self):
        leaf = {"configuration/messages/texts.h": "", "platform/pcore/a.h": "", "lifecycle/task.h": "",
                "platform/configmanager/state/plan.h": "", "platform/configmanager/apply.h": ""}
        grouped = {"helpers/tessel_lifecycle/README.md": "| tasks | `a`, `b` | x `y` |\n| ground | `c` | z |\n",
                   "helpers/tessel_lifecycle/__init__.py": "", "helpers/tessel_lifecycle/c.py": "",
                   "helpers/tessel_lifecycle/b.py": "", "helpers/tessel_lifecycle/a.py": "import tessel_lifecycle.b\n"}
        cases = {
            "upwards": ({"lifecycle/a.cpp": "\n" + include("daemon/b.h"), "daemon/b.h": ""},
                        "lifecycle/a.cpp:2: lifecycle -> daemon is not allowed (daemon/b.h)"),
            "out of platform": ({"platform/orbi/a.h": include("lifecycle/task.h")},
                                'platform/orbi/a.h:1: "lifecycle/task.h" is no header that it sees'),
            "between platform libraries": (
                {"platform/orbi/a.h": include("pcore/a.h")},
                "platform/orbi/a.h:1: platform/orbi -> platform/pcore is not allowed (pcore/a.h)"),
            "a leaf that uses what is above": (
                {"software/command/a.h": include("configuration/messages/texts.h")},
                "software/command/a.h:1: software/command -> configuration/messages is not allowed "
                "(configuration/messages/texts.h)"),
            "the transport and a service": (
                {"transport/http/a.h": include("configuration/messages/texts.h")},
                "transport/http/a.h:1: transport -> configuration/messages is not allowed "
                "(configuration/messages/texts.h)"),
            "a new folder": ({"storage/a.h": include("lifecycle/task.h")},
                             "storage/a.h:1: the folder storage is in no row of ARROWS"),
            "the inside of a library": (
                {"configuration/a.cpp": include("configmanager/apply.h", "configmanager/state/plan.h")},
                "configuration/a.cpp:2: configmanager/state/plan.h is the inside of platform/configmanager"),
            "up, inside a library": (
                {"platform/configmanager/schema/a.h": include("configmanager/state/plan.h")},
                "platform/configmanager/schema/a.h:1: platform/configmanager/schema -> platform/configmanager/state "
                "is not allowed (configmanager/state/plan.h)"),
            "test code in the daemon": (
                {"lifecycle/a.cpp": include("lifecycle/testing/host.h"), "lifecycle/testing/host.h": ""},
                "lifecycle/a.cpp:1: lifecycle/testing/host.h is for tests"),
            "a circle over a source file": (
                {"lifecycle/a.h": "", "lifecycle/a.cpp": include("lifecycle/b.h"),
                 "lifecycle/b.h": include("lifecycle/a.h")},
                "lifecycle/b.h:1: a circle: lifecycle/a -> lifecycle/b -> lifecycle/a"),
            "Python across packages": (
                {"helpers/tessel_lifecycle/__init__.py": "", "helpers/tessel_lifecycle/a.py": "",
                 "apply_modules/time/configure":
                     "#!/usr/bin/env python3\ndef f():\n    from tessel_lifecycle import a\n"},
                "apply_modules/time/configure:3: apply_modules -> helpers/tessel_lifecycle is not allowed "
                "(tessel_lifecycle.a)"),
            "a Python circle": (
                {"helpers/tessel_lifecycle/__init__.py": "",
                 "helpers/tessel_lifecycle/a.py": "from tessel_lifecycle.b import c\n",
                 "helpers/tessel_lifecycle/b.py": "def c():\n    import tessel_lifecycle.a\n"},
                "helpers/tessel_lifecycle/b.py:2: a circle: helpers/tessel_lifecycle/a -> helpers/tessel_lifecycle/b "
                "-> helpers/tessel_lifecycle/a"),
            "up, among the groups of a package": (
                grouped | {"helpers/tessel_lifecycle/c.py": "def f():\n    from tessel_lifecycle import b\n"},
                "helpers/tessel_lifecycle/c.py:2: tessel_lifecycle.b is in a group further up"),
            "a module in no group": (
                grouped | {"helpers/tessel_lifecycle/d.py": ""},
                "helpers/tessel_lifecycle/README.md:1: helpers/tessel_lifecycle/d.py is in no group"),
        }
        for name, (files, told) in cases.items():
            with self.subTest(name):
                self.assertEqual(problems(leaf | files), [told])

    def test_links_are_what_is_included(self):
        files = {
            "platform/pcore/CMakeLists.txt": "kestrel_library(pcore PLATFORM)\n",
            "platform/pcore/a.h": "#include <thread>\n",
            "platform/sqlite/CMakeLists.txt": "kestrel_library(sqlite PLATFORM)\n",
            "software/command/CMakeLists.txt": "kestrel_library(command\n  LINK sqlite TEST_LINK pcore)\n",
            "software/command/a.cpp": "#include <boost/asio/post.hpp>\n" + include("pcore/a.h"),
            "software/command/a_test.cpp": include("pcore/a.h") + "#include <thread>\n#include <openssl/evp.h>\n",
        }
        self.assertEqual(problems(files), [
            "platform/pcore/a.h:1: pcore does not link to Threads::Threads (platform/pcore/CMakeLists.txt:1)",
            "software/command/a_test.cpp:3: command does not link to OpenSSL::Crypto "
            "(software/command/CMakeLists.txt:1)",
            "software/command/a.cpp:1: command does not link to asio (software/command/CMakeLists.txt:1)",
            "software/command/a.cpp:2: command does not link to pcore (software/command/CMakeLists.txt:1)",
            "software/command/CMakeLists.txt:1: command links to sqlite and includes nothing of it",
        ])
        files["software/command/CMakeLists.txt"] = "kestrel_library(command LINK pcore asio TEST_LINK OpenSSL::Crypto)"
        files["platform/pcore/CMakeLists.txt"] = "kestrel_library(pcore LINK Threads::Threads)"
        self.assertEqual(problems(files), [])

    def test_documents_name_what_is_there(self):
        files = {"README.md": "[a](docs/a.md#part), [b](docs/b.md), [c](https://example.com/c)\n"
                              "`lifecycle/x.{h,cpp}`, `lifecycle/NAME_test.cpp`, `/var/tessel/x`, `lifecycle/`\n",
                 "docs/a.md": "", "lifecycle/x.h": "", "lifecycle/x_test.cpp": ""}
        self.assertEqual(problems(files), ["README.md:1: docs/b.md is not there",
                                           "README.md:2: lifecycle/x.cpp is not there"])

    def test_the_map_is_the_table(self):
        with open(os.path.join(os.path.dirname(HERE), "docs/architecture.md"), encoding="utf-8") as file:
            true = file.read()
        row = next(line for line in true.splitlines(keepends=True) if line.startswith("| `filter` | "))
        stale = "docs/architecture.md:1: its list of arrows is not that of tools/check-structure; run it with --write"
        self.assertIn(stale, problems({"docs/architecture.md": true.replace(row, "")}))
        drawn = true.replace("platform/tesselibs", "platform/elsewhere", 1)
        self.assertIn("docs/architecture.md:1: its picture lacks platform/tesselibs",
                      problems({"docs/architecture.md": drawn}))


if __name__ == "__main__":
    unittest.main()
