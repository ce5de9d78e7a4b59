# SPDX-License-Identifier: Apache-2.0
"""What is done to a watched directory without a write to a file below its path: silent by the default events, told in
the scope of containers. Each technique by twenty containers at once."""

import shutil

import harness

TRIES = harness.tries(20)
# What a container does; the watched directories' parent is its /host.
TECHNIQUES = {
    "rename into": "rename /host/out/file /host/watched/in",
    "link into": "link /host/out/file /host/watched/in",
    "unnamed file linked into": "unnamed /host/out /host/watched/in",
    "exchange": "exchange /host/out/file /host/watched/kept",
    "unlink": "unlink /host/watched/kept",
    "chmod": "chmod /host/watched/kept",
    "directory moved out and back": "away /host/watched /host/out/away",
    "write through a hard link": "write /host/out/linked",
    "write through a hard link that is made and gone": "through /host/watched/kept /host/out/link",
    "write where the host moved the directory": "write /host/out/moved/file",
    "write in a directory made later": "write /host/later/file",
}


def prepare(folder):
    """Makes anew what a technique finds below the folder that is a container's /host."""
    for name in ("watched", "out", "later"):
        shutil.rmtree(folder / name, ignore_errors=True)
    for name in ("watched", "out"):
        (folder / name).mkdir(parents=True)
    for name in ("watched/kept", "out/file"):
        (folder / name).write_text("x\n")
    (folder / "out/linked").hardlink_to(folder / "watched/kept")


def aim(folder, order):
    """Does the host's part of a technique. Returns the paths of which one must be told."""
    if "/later/" in order:
        (folder / "later").mkdir()
    if "/moved/" in order:
        (folder / "watched").rename(folder / "out/moved")
    return [word.replace("/host", str(folder)) for word in order.split()[1:]]


class Files(harness.InDocker):
    def setUp(self):
        self.folders = [self.folder / str(number) for number in range(TRIES)]
        self.servers = []
        for folder in self.folders:
            folder.mkdir()
            self.servers.append(self.server(self.start("-v", f"{folder}:/host")))

    def prepare(self):
        for folder in self.folders:
            prepare(folder)

    def attack(self, order):
        """Returns the paths of which one must be told, for each container."""
        paths = []
        for folder, server in zip(self.folders, self.servers):
            paths.append(aim(folder, order))
            server.do(f"fork {order}")
        return paths

    def misses(self, agent, order, scope):
        self.prepare()
        agent.reload()  # or the alarms of two techniques would be merged, and the new directories not be seen yet
        missed = self.attack(order)
        if scope == "thread":  # silence has an end: alarms come in the order of the accesses
            (self.folders[0] / "watched").mkdir(exist_ok=True)
            self.servers[0].do("self write /host/watched/last")
        try:
            while missed:
                path = agent.alarm(patience=3)[1]["file_info"][0]["file_path"]
                if path.endswith("/last"):
                    break
                missed = [paths for paths in missed if path not in paths]
        except AssertionError:
            self.assertEqual(scope, "container", "the last write alarms in any scope")
        return len(missed)

    def test_each_technique_with_and_without_the_key(self):
        directories = [str(folder / name) for folder in self.folders for name in ("watched", "later")]
        for scope, expected in (("thread", TRIES), ("container", 0)):
            with self.agent(directories=directories, scope=scope) as agent:
                for what, order in TECHNIQUES.items():
                    missed = self.misses(agent, order, scope)
                    print(f"\n  {what}, scope {scope}: {missed} of {TRIES} missed", end="", flush=True)
                    with self.subTest(what):
                        self.assertEqual(missed, expected)
