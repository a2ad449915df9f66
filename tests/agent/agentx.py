"""The modules in a subagent of a stock master, which knows nothing of them."""

import ber

from harness import AGENT_PORT, COMMUNITY, SCALAR, SYS_UP_TIME, Host, MiscColumn, Process, wait_for


class AgentxHost(Host):
    """A host whose agent is a subagent; managers ask the master."""

    def __init__(self):
        super().__init__()
        self.master = None
        self.master_directives = []
        self.agent_directives = ["agentXPingInterval 1"]

    @property
    def agentx_socket(self):
        return self.directory / "agentx"

    def start_master(self) -> None:
        lines = [f"rwcommunity {COMMUNITY} 127.0.0.0/8", "dontLogTCPWrappersConnects yes"]
        lines += ["master agentx", *self.master_directives]
        configuration = self.directory / "master.conf"
        configuration.write_text("\n".join(lines) + "\n", encoding="utf-8")
        command = ["/usr/sbin/snmpd", "-f", "-C", "-c", configuration, "-I", "-smux"]
        command += ["-x", self.agentx_socket, "-Lf", self.directory / "master.log"]
        command += ["-p", self.directory / "master.pid", f"udp:{self.address}:{AGENT_PORT}"]
        # Nothing of the platform's.
        names = ("PATH", "TZ", "MIBS", "MIBDIRS")
        environment = {name: self.environment[name] for name in names}
        environment["SNMP_PERSISTENT_DIR"] = str(self.directory / "persistent-master")
        self.master = Process(command, self.directory / "master.out", "/", environment)
        wait_for(self._master_answers, "the master answers", timeout=10)

    def _master_answers(self) -> bool:
        assert self.master.running(), (self.directory / "master.log").read_text()
        return self.sender.get(SYS_UP_TIME, timeout=0.2) is not None

    def start_agent(self) -> None:
        if self.master is None or not self.master.running():
            self.start_master()
        super().start_agent()

    def _agent_place(self) -> list:
        # As the service's command line has it.
        return ["-X", "-I", "dlmod", "-x", self.agentx_socket]

    def _agent_answers(self) -> bool:
        """All of the module is registered with the master, the last column included."""
        assert self.agent.running(), f"the subagent has ended\n{self.logs()}"
        return self.served()

    def served(self) -> bool:
        answer = self.sender.get(SCALAR, f"{MiscColumn.ROW}.1", timeout=1)
        return answer is not None and ber.NO_SUCH_OBJECT not in [
            variable.tag for variable in answer.variables
        ]

    def stop(self) -> None:
        super().stop()
        if self.master is not None:
            self.master.stop()
