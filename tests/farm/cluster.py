#!/usr/bin/python3
"""A Slurm cluster on this machine's loopback: a controller and two nodes of one processor each.

cluster.py up DIRECTORY      starts it, with configuration, state and logs in DIRECTORY
cluster.py down DIRECTORY    ends it

It runs as the user who starts it, without MUNGE, systemd and control groups, and each node has its processes for
itself, so that a node can be cut off as by its mains switch. SLURM_CONF=DIRECTORY/slurm.conf is how Slurm's commands
and gsve reach it. Who can reach the loopback of this machine can run jobs on it: auth/none believes everybody.
"""

import json
import os
import pathlib
import pwd
import random
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time

NODES = ("node1", "node2")
MEMORY = 4000  # megabytes of a node
DEADLINE = 100  # seconds; the cluster takes a few to start
ATTEMPTS = 5  # ports that are free may be taken before the daemons have bound them
PROGRAMS = ("slurmctld", "slurmd", "sbatch", "scontrol", "squeue", "sinfo", "scancel", "unshare")

# A node that is dead is noticed after ten seconds, and what ran on it may begin again after five more: the life of
# credentials is how long Slurm makes a requeued job wait.
CONFIGURATION = """\
ClusterName=farm
SlurmctldHost={host}(127.0.0.1)
SlurmctldPort={ports[0]}
CommunicationParameters=NoCtldInAddrAny,NoInAddrAny
SlurmUser={user}
SlurmdUser={user}
AuthType=auth/none
CredType=cred/none
AuthInfo=cred_expire=5
StateSaveLocation="{directory}/state"
SlurmdSpoolDir="{directory}/%n"
SlurmctldPidFile="{directory}/slurmctld.pid"
SlurmdPidFile="{directory}/%n.pid"
PlugStackConfig="{directory}/plugstack.conf"
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/filetxt
JobCompLoc="{directory}/jobs.txt"
SwitchType=switch/none
MpiDefault=none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU_Memory
SchedulerType=sched/backfill
SchedulerParameters=batch_sched_delay=0,sched_interval=2,bf_interval=2
ReturnToService=2
SlurmdTimeout=10
SlurmctldTimeout=10
MessageTimeout=5
KillWait=2
MaxArraySize={array_size}
MaxJobCount={job_count}
MinJobAge=60
SlurmdParameters=config_overrides
{nodes}
PartitionName=farm Nodes=ALL Default=YES MaxTime=INFINITE State=UP
"""
NODE = "NodeName={name} NodeHostname={host} NodeAddr=127.0.0.1 Port={port} CPUs=1 RealMemory={memory} State=UNKNOWN"


def free_ports(count):
    """Below those that the system gives to clients, which may take a free one at any time."""
    ports = []
    while len(ports) < count:
        port = random.randrange(20000, 32000)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                continue
        if port not in ports:
            ports.append(port)
    return ports


def namespaces():
    """The command that gives what follows its own processes, all of which end with it."""
    own = [] if os.geteuid() == 0 else ["--user", "--map-current-user"]
    return ["unshare", *own, "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]


class Cluster:
    def __init__(self, directory, array_size=1001, job_count=10000):
        self.directory = pathlib.Path(directory).resolve()
        self.configuration = self.directory / "slurm.conf"
        self._record = self.directory / "processes.json"
        self._limits = {"array_size": array_size, "job_count": job_count}
        self._started = {}  # those of this process, which it has to wait for

    def environment(self):
        """Slurm's own variables, of a job in which this may run, would reach the commands."""
        clean = {name: value for name, value in os.environ.items()
                 if not name.startswith(("SLURM", "SBATCH", "SQUEUE", "SCANCEL", "SACCT"))}
        return clean | {"SLURM_CONF": str(self.configuration)}

    def run(self, *command, check=True):
        """The standard output of one of Slurm's commands."""
        result = subprocess.run([*map(str, command)], env=self.environment(), capture_output=True, text=True,
                                stdin=subprocess.DEVNULL, timeout=DEADLINE, check=False)
        if check and result.returncode != 0:
            raise RuntimeError(f"{' '.join(map(str, command))}: {result.stderr.strip()}")
        return result.stdout

    # Starting

    def up(self):
        missing = [program for program in PROGRAMS if not shutil.which(program)]
        if missing:
            raise RuntimeError(f"{', '.join(missing)} not found; ./dev farm-up and ./dev farm test install them")
        if self._processes():
            raise RuntimeError(f"the cluster in {self.directory} is up already")
        for attempt in range(1, ATTEMPTS + 1):
            self._configure()
            self._start("slurmctld", ["slurmctld", "-D", "-f", self.configuration])
            for name in NODES:
                self.start_node(name)
            if self._has_started():
                return
            logs = self._logs()
            self.down()
            if "Address already in use" not in logs or attempt == ATTEMPTS:
                raise RuntimeError(f"the cluster did not start:\n{logs}")

    def _configure(self):
        for name in ("state", *NODES):
            shutil.rmtree(self.directory / name, ignore_errors=True)
            (self.directory / name).mkdir(parents=True)
        (self.directory / "plugstack.conf").write_text("", encoding="ascii")
        host, ports = socket.gethostname().split(".")[0], free_ports(1 + len(NODES))
        nodes = "\n".join(NODE.format(name=name, host=host, port=port, memory=MEMORY)
                          for name, port in zip(NODES, ports[1:]))
        user = pwd.getpwuid(os.geteuid()).pw_name
        self.configuration.write_text(
            CONFIGURATION.format(host=host, ports=ports, user=user, directory=self.directory, nodes=nodes,
                                 **self._limits), encoding="utf-8")

    def start_node(self, name):
        # The shell reaps what outlives its parent on a node, as init does.
        node = ["sh", "-c", '"$@" & wait', "sh", "slurmd", "-D", "-N", name, "-f", self.configuration]
        self._start(name, [*namespaces(), *node])

    def _start(self, name, command):
        with open(self.directory / f"{name}.log", "ab") as log:
            process = subprocess.Popen([*map(str, command)], env=self.environment(), cwd="/", stdin=subprocess.DEVNULL,
                                       stdout=log, stderr=log, start_new_session=True)
        self._started[name] = process
        self._remember({**self._processes(), name: process.pid})

    def _has_started(self):
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline:
            if any(process.poll() is not None for process in self._started.values()):
                return False
            if self.states() == ["idle"] * len(NODES):
                return True
            time.sleep(0.2)
        return False

    def states(self):
        """Of the nodes; none where the controller does not answer."""
        return self.run("sinfo", "-h", "-N", "-o", "%T", check=False).split()

    def _logs(self):
        return "".join(f"{path.name}:\n{path.read_text(encoding='utf-8', errors='replace')[-3000:]}\n"
                       for path in sorted(self.directory.glob("*.log")))

    # Ending

    def down(self):
        for name in self._processes():
            self.kill(name)

    def kill(self, name):
        """At once, as where the mains fail: a node with all that runs on it."""
        processes = self._processes()
        pid = processes.pop(name)
        os.kill(pid, signal.SIGKILL)
        if name in self._started:
            self._started.pop(name).wait(DEADLINE)
        self._remember(processes)

    def _remember(self, processes):
        self._record.write_text(json.dumps(processes), encoding="utf-8")

    def _processes(self):
        """Those that were started and are still there. Their numbers may have become others' since."""
        try:
            recorded = json.loads(self._record.read_text(encoding="utf-8"))
        except FileNotFoundError:
            return {}
        return {name: pid for name, pid in recorded.items() if self._is_ours(pid)}

    def _is_ours(self, pid):
        try:
            command = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
        except OSError:
            return False
        return os.fsencode(self.configuration) in command


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ("up", "down"):
        sys.exit(__doc__)
    cluster = Cluster(sys.argv[2])
    try:
        if sys.argv[1] == "down":
            cluster.down()
            return
        cluster.up()
    except RuntimeError as error:
        sys.exit(f"cluster: {error}")
    configuration = shlex.quote(str(cluster.configuration))
    print(f"The cluster is up. In a shell that is to use it:\n\n    export SLURM_CONF={configuration}")


if __name__ == "__main__":
    main()
