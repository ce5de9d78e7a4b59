# SPDX-License-Identifier: Apache-2.0
"""A containerd of the tests' own, and the few calls of the Kubernetes container runtime interface (CRI) that make pods.

Calls are gRPC: a protocol buffer behind five bytes, in an HTTP/2 request. Numbers of fields: runtime.v1 in
https://github.com/kubernetes/cri-api/blob/master/pkg/apis/runtime/v1/api.proto.
"""

import pathlib
import secrets
import subprocess
import textwrap

import harness

HOST = 2  # a name space that the pod shares with the host


def field(number, value):
    """A field of a protocol buffer: a small number, a text, or a message."""
    if isinstance(value, int):
        return bytes((number << 3, value))
    raw = value.encode() if isinstance(value, str) else value
    length = len(raw)
    size = bytes((length,)) if length < 128 else bytes((length & 127 | 128, length >> 7))
    return bytes((number << 3 | 2,)) + size + raw


def message(*fields):
    """Of pairs of numbers and values."""
    return b"".join(field(number, value) for number, value in fields)


class Containerd:
    """Its images are those of the archives: "pause" sleeps, "probe" has the probe."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.socket = self.folder / "containerd.sock"
        config = self.folder / "containerd.toml"
        config.write_text(textwrap.dedent(f"""\
            version = 2
            root = "{self.folder}/containerd"
            state = "{self.folder}/containerd-state"
            [grpc]
              address = "{self.socket}"
            [plugins."io.containerd.internal.v1.opt"]
              path = "{self.folder}/opt"
            [plugins."io.containerd.grpc.v1.cri"]
              sandbox_image = "docker.io/library/pause:1"
              stream_server_port = "0"
              restrict_oom_score_adj = true
              [plugins."io.containerd.grpc.v1.cri".containerd]
                snapshotter = "native"
              [plugins."io.containerd.grpc.v1.cri".cni]
                conf_dir = "{self.folder}/no-cni"
            """))
        with open(self.folder / "containerd.log", "wb") as log:
            self.daemon = subprocess.Popen(["containerd", "-c", config], stdout=log, stderr=log)
        # Its socket is there before it answers.
        harness.wait_until(lambda: subprocess.run([*self.ctr(), "version"], capture_output=True, check=False).returncode == 0)

    def ctr(self, namespace="default"):
        return "ctr", "-a", self.socket, "-n", namespace

    def close(self):
        self.daemon.terminate()
        self.daemon.wait(harness.PATIENCE)

    def load(self, archive, podman, also=None):
        """Makes both images of a tar file of their root directory. Returns the id and the digest of "probe", which
        counts as one that comes from a registry. `also`: another name of it."""
        for name, entry in (("pause", ("/bin/sleep", "1000")), ("probe", ("/bin/probe",))):
            words = ",".join(f'"{word}"' for word in entry)
            harness.run(*podman, "import", "--change", f"ENTRYPOINT [{words}]", archive, f"docker.io/library/{name}:1")
            harness.run(*podman, "save", "-o", self.folder / f"{name}.tar", f"docker.io/library/{name}:1")
            harness.run(*self.ctr("k8s.io"), "images", "import", "--snapshotter", "native", self.folder / f"{name}.tar")
        name = "docker.io/library/probe"
        image = "sha256:" + harness.run(*podman, "image", "inspect", f"{name}:1", "--format", "{{.Id}}")
        digest = harness.run(*self.ctr("k8s.io"), "images", "ls", f"name=={name}:1").splitlines()[1].split()[2]
        harness.run(*self.ctr("k8s.io"), "images", "tag", f"{name}:1", f"{name}@{digest}")
        if also:
            harness.run(*self.ctr("k8s.io"), "images", "tag", f"{name}:1", also)
        return image, digest

    def call(self, method, request):
        """Returns the first field of the response, a text; none if there is none."""
        url = f"http://localhost/runtime.v1.RuntimeService/{method}"
        done = subprocess.run(["curl", "--silent", "--show-error", "--http2-prior-knowledge", "--unix-socket", self.socket,
                               "--max-time", str(harness.PATIENCE), "-H", "content-type: application/grpc", "-H",
                               "te: trailers", "--data-binary", "@-", url],
                              input=b"\0" + len(request).to_bytes(4, "big") + request, capture_output=True, check=False)
        if done.returncode != 0 or len(done.stdout) < 5:
            raise RuntimeError(f"{method}: {done.stderr.decode()} {(self.folder / 'containerd.log').read_text()[-2000:]}")
        return done.stdout[7:7 + done.stdout[6]].decode() if len(done.stdout) > 5 else None


class Pod:
    """In the host's network."""

    def __init__(self, containerd, name):
        self.containerd, self.name, self.uid = containerd, name, secrets.token_hex(8)
        self.logs = containerd.folder / name
        self.logs.mkdir()
        spaces = message((1, HOST))
        self.config = message((1, message((1, name), (2, self.uid), (3, "shop"))), (3, str(self.logs)),
                              (8, message((2, message((1, spaces), (6, 1))))))  # may have privileged containers
        self.sandbox = containerd.call("RunPodSandbox", field(1, self.config))

    def start(self, name, *words, image="docker.io/library/probe:1", command=(), privileged=False):
        """Starts the probe, or another command, in a container. Returns its id."""
        security = message((1, field(1, "SYS_ADMIN")), (2, int(privileged)), (3, message((1, HOST))))
        config = message((1, field(1, name)), (2, field(1, image)), *((3, word) for word in command),
                         *((4, word) for word in words), (11, f"{name}.log"), (15, field(2, security)))
        container = self.containerd.call("CreateContainer", message((1, self.sandbox), (2, config), (3, self.config)))
        self.containerd.call("StartContainer", field(1, container))
        return container

    def run(self, name, *words, **more):
        """Runs one to its end. Returns its id and what it said."""
        container = self.start(name, *words, **more)
        log = self.logs / f"{name}.log"
        harness.wait_until(lambda: log.exists() and " F " in log.read_text())
        # Each line has its time, its stream and whether it is whole in front.
        return container, "\n".join(line.split(" ", 3)[3] for line in log.read_text().splitlines())

    def close(self):
        self.containerd.call("StopPodSandbox", field(1, self.sandbox))
        self.containerd.call("RemovePodSandbox", field(1, self.sandbox))
