#!/usr/bin/env python3
"""A throw-away one-node Slurm cluster on this machine, for tests and trials: munged, slurmctld
and slurmd from Debian's packages, run as children of this process, every key, socket, state,
spool and log file in one temporary directory. The cluster is stopped and its directory removed
on leaving the `with` block, also on failure; should this process die without cleaning up, the
daemons receive SIGTERM (parent-death signal) rather than outliving it.

    with SlurmCluster() as cluster:
        subprocess.run(["sbatch", "--wrap", "hostname"], env=cluster.env)

Run as a script, it starts a cluster, runs the command given after `--` against it (SLURM_CONF
set) and stops it:  slurm_cluster.py -- sbatch --wait --wrap hostname"""
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

DAEMONS = ("munged", "slurmctld", "slurmd")
# Plug-ins that need nothing of the machine: no cgroups (a container-like VM has no writable
# cgroup tree), no accounting database, no mail.
CONF = """\
ClusterName=kelfarm
SlurmctldHost={host}(127.0.0.1)
SlurmUser=root
SlurmdUser=root
SlurmctldPort={ctld_port}
SlurmdPort={slurmd_port}
AuthType=auth/munge
AuthInfo=socket={dir}/munge.sock
CredType=cred/munge
StateSaveLocation={dir}/state
SlurmdSpoolDir={dir}/spool
SlurmctldPidFile={dir}/slurmctld.pid
SlurmdPidFile={dir}/slurmd.pid
SlurmctldLogFile={dir}/slurmctld.log
SlurmdLogFile={dir}/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
SwitchType=switch/none
MpiDefault=none
MailProg=/bin/true
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
NodeName={host} NodeAddr=127.0.0.1 CPUs={cpus} State=UNKNOWN
PartitionName=farm Nodes={host} Default=YES MaxTime=INFINITE State=UP
"""


def why_not_here():
    """Why no cluster can run on this machine (slurmd runs jobs as their users: it needs root,
    as do the daemons' programs), or None."""
    if os.geteuid() != 0:
        return "slurmd must run as root"
    missing = [p for p in (*DAEMONS, "sbatch", "squeue", "scancel", "sinfo")
               if shutil.which(p, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") is None]
    return "not installed: " + " ".join(missing) if missing else None


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _die_with_parent():
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class SlurmCluster:
    def __init__(self, cpus=None, start_timeout=30):
        self.cpus = cpus or os.cpu_count()
        self.start_timeout = start_timeout
        self.dir = None
        self.env = None
        self._daemons = []

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        self.dir = tempfile.mkdtemp(prefix="kel-slurm-")
        os.chmod(self.dir, 0o755)  # munged wants its socket's directory searchable by all
        for sub in ("state", "spool"):
            os.mkdir(os.path.join(self.dir, sub))
        key = os.path.join(self.dir, "munge.key")
        with open(os.open(key, os.O_WRONLY | os.O_CREAT, 0o600), "wb") as f:
            f.write(os.urandom(1024))
        conf = os.path.join(self.dir, "slurm.conf")
        host = socket.gethostname().split(".")[0]
        with open(conf, "w") as f:
            f.write(CONF.format(host=host, dir=self.dir, cpus=self.cpus,
                                ctld_port=_free_port(), slurmd_port=_free_port()))
        self.env = dict(os.environ, SLURM_CONF=conf)
        self.env["PATH"] = self.env.get("PATH", "") + ":/usr/sbin:/sbin"

        sock = os.path.join(self.dir, "munge.sock")
        self._spawn("munged", "--foreground", "--force", "--key-file=" + key, "--socket=" + sock,
                    "--pid-file=" + os.path.join(self.dir, "munged.pid"),
                    "--seed-file=" + os.path.join(self.dir, "munged.seed"),
                    "--log-file=" + os.path.join(self.dir, "munged.log"))
        self._wait("munged's socket", lambda: os.path.exists(sock))
        self._spawn("slurmctld", "-D", "-f", conf)
        self._spawn("slurmd", "-D", "-f", conf, "-N", host)
        self._wait("the node to be idle", lambda: self.run("sinfo", "-h", "-o", "%T").stdout.strip() == "idle")

    def run(self, *args, **kwargs):
        """Runs a Slurm client command against this cluster; returns the CompletedProcess."""
        return subprocess.run(args, env=self.env, capture_output=True, text=True, timeout=30, **kwargs)

    def log(self, daemon):
        """The log of one daemon (munged, slurmctld, slurmd), for a failing test to show."""
        try:
            with open(os.path.join(self.dir, daemon + ".log"), errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def stop(self):
        """Cancels every job, waits (bounded) for their processes to end, stops the daemons and
        removes the directory."""
        if self._daemons and all(p.poll() is None for p in self._daemons):
            self.run("scancel", "--full", "--user=root")
            try:
                self._wait("the jobs to end", lambda: self.run("squeue", "-h").stdout.strip() == "", timeout=20)
            except TimeoutError:
                pass
        for p in reversed(self._daemons):
            if p.poll() is None:
                p.terminate()
        for p in reversed(self._daemons):
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        self._daemons = []
        if self.dir:
            shutil.rmtree(self.dir, ignore_errors=True)
            self.dir = None

    def _spawn(self, *args):
        out = open(os.path.join(self.dir, args[0] + ".out"), "w")
        self._daemons.append(subprocess.Popen(args, env=self.env, stdin=subprocess.DEVNULL, stdout=out,
                                              stderr=subprocess.STDOUT, preexec_fn=_die_with_parent))
        out.close()

    def _wait(self, what, ready, timeout=None):
        deadline = time.monotonic() + (timeout or self.start_timeout)
        while time.monotonic() < deadline:
            for p in self._daemons:
                if p.poll() is not None:
                    raise RuntimeError("%s exited with status %d while waiting for %s:\n%s" %
                                       (p.args[0], p.returncode, what, self._output(p.args[0])))
            if ready():
                return
            time.sleep(0.2)
        raise TimeoutError("timed out waiting for " + what)

    def _output(self, daemon):
        with open(os.path.join(self.dir, daemon + ".out"), errors="replace") as f:
            return f.read()[-4000:] + self.log(daemon)[-4000:]


def main(argv):
    if "--" not in argv or argv.index("--") == len(argv) - 1:
        sys.stderr.write("usage: slurm_cluster.py -- COMMAND [ARGS...]\n")
        return 2
    reason = why_not_here()
    if reason:
        sys.stderr.write("slurm_cluster.py: %s\n" % reason)
        return 2
    command = argv[argv.index("--") + 1:]
    # SIGTERM and SIGHUP leave through the with block, so the cluster is stopped.
    for s in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(s, lambda number, _: sys.exit(128 + number))
    with SlurmCluster() as cluster:
        return subprocess.run(command, env=cluster.env).returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
