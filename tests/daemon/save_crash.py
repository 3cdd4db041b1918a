#!/usr/bin/env python3
"""The daemon killed in the middle of binding-file saves.

The daemon runs with ports that have no interface (no privileges, no network
namespaces), starting from a binding file of 400 bindings. Each round starts
it, checks what it loaded, deletes a few bindings with dhcpsnoopctl (each
deletion queues a save) and kills it with SIGKILL at a random moment around
the save, which the slow_save shim stretches so that the kill often lands in
the middle of the write. Every start must load a complete, recent set: one
of the sets the table held (the first bindings of the deletion order gone),
never older than the set the previous start loaded, and never an empty one.

Then: a save still running at the 10 s stop limit ends the daemon with exit
code 4, and the next start restores the last good copy.

Standard library only. Exit 0 pass, 1 fail, 77 skipped."""
import argparse
import json
import os
import random
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import time

BINDINGS = 400
HEADER = "1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n"


def binding(k):
    """IP, MAC of binding k (0-based): all in VLAN 10 on port 1/0/2."""
    return ("198.18.%d.%d" % (k // 200, 1 + k % 200), "02:00:00:00:%02x:%02x" % (k // 256, k % 256))


def binding_file(keys):
    text = HEADER
    for i, k in enumerate(keys):
        ip, mac = binding(k)
        ipx = ".".join("%02x" % int(p) for p in ip.split("."))
        text += "%s\t%s\t%04x\t%11s\t%08x\t%08x\t\r\n" % (ipx, mac, 10, "1/0/2", 0x10000, 30 + 67 * (i + 1))
    return text + "END\r\n"


class Fail(Exception):
    pass


RUNNING = []  # daemons to kill when the test ends early


class Daemon:
    def __init__(self, args, work, env_extra=None):
        self.args = args
        self.work = work
        self.sock = os.path.join(work, "ctl.sock")
        self.log_path = os.path.join(work, "daemon.log")
        env = dict(os.environ)
        env.update(env_extra or {})
        self.log = open(self.log_path, "ab")
        self.log.write(b"---- start\n")
        self.log.flush()
        self.proc = subprocess.Popen(
            [args.daemon, "--config", os.path.join(work, "sw.toml"), "--data-dir", os.path.join(work, "data"),
             "--control", self.sock], stdout=self.log, stderr=self.log, env=env)
        RUNNING.append(self.proc)
        self.wait_ready()

    def wait_ready(self):
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise Fail("the daemon ended at start with %d:\n%s" % (self.proc.returncode, self.tail()))
            if "dhcpsnoopd: ready" in self.tail().rsplit("---- start", 1)[-1]:
                return
            time.sleep(0.01)
        raise Fail("the daemon did not get ready:\n" + self.tail())

    def tail(self):
        with open(self.log_path, "rb") as f:
            return f.read()[-3000:].decode(errors="replace")

    def ctl(self, *words):
        """One request on the control socket (the protocol dhcpsnoopctl
        speaks); a program start per request would be most of the test's
        time on a loaded machine."""
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(20)
        try:
            s.connect(self.sock)
            s.sendall((" ".join(words) + "\n").encode())
            reply = b""
            while True:
                b = s.recv(65536)
                if not b:
                    break
                reply += b
        finally:
            s.close()
        status, _, body = reply.decode().partition("\n")
        return (0 if status == "ok" else 1), body, body

    def status(self):
        rc, out, err = self.ctl("status", "--json")
        if rc != 0:
            raise Fail("status: %d %s" % (rc, err))
        return json.loads(out)

    def bindings(self):
        rc, out, err = self.ctl("bindings", "--json")
        if rc != 0:
            raise Fail("bindings: %d %s" % (rc, err))
        return {(b["ip"], b["mac"]) for b in json.loads(out)}

    def kill(self):
        self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()
        self.log.close()

    def stop(self, timeout=30):
        self.proc.send_signal(signal.SIGTERM)
        rc = self.proc.wait(timeout=timeout)
        self.log.close()
        return rc


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--daemon", required=True)
    ap.add_argument("--ctl", required=True)
    ap.add_argument("--shim", required=True)
    ap.add_argument("--rounds", type=int, default=100)
    ap.add_argument("--seed", type=int, default=None)
    args = ap.parse_args()
    args.shim = os.path.abspath(args.shim)
    seed = args.seed if args.seed is not None else random.randrange(1 << 30)
    rng = random.Random(seed)
    print("save_crash: seed %d (--seed to repeat)" % seed)

    work = tempfile.mkdtemp(prefix="dhcpsnoop-crash-")
    keep = False
    try:
        with open(os.path.join(work, "sw.toml"), "w") as f:
            f.write('[switch]\ndataplane = "user"\nsnooping_vlans = [10]\n\n[[port]]\nname = "1/0/1"\nvlan = 10\ntrust = true\n\n'
                    '[[port]]\nname = "1/0/2"\nvlan = 10\n')
        data = os.path.join(work, "data")
        main_file = os.path.join(data, "dhcpSnoop.cfg")
        copy_file = main_file + ".good"
        # The data directory is the daemon's to make.
        os.makedirs(data, mode=0o700)
        with open(main_file, "w", newline="") as f:
            f.write(binding_file(range(BINDINGS)))
        os.chmod(main_file, 0o644)

        order = list(range(BINDINGS))
        rng.shuffle(order)
        every = {binding(k) for k in range(BINDINGS)}

        def sets_for(j):
            return every - {binding(k) for k in order[:j]}

        loaded_j = 0   # deletions reflected in what the last start loaded
        posted = 0     # deletions the daemon took
        restores = 0
        slow = {"LD_PRELOAD": args.shim, "ASAN_OPTIONS": "verify_asan_link_order=0:detect_leaks=0",
                "DHCPSNOOP_SLOW_SAVE_US": "5000"}
        for rnd in range(args.rounds):
            d = Daemon(args, work, slow)
            got = d.bindings()
            st = d.status()
            if st["restored_at_start"]:
                restores += 1
            match = [j for j in range(loaded_j, posted + 1) if sets_for(j) == got]
            if not got:
                raise Fail("round %d: an empty set was loaded while %d bindings existed" % (rnd, BINDINGS - posted))
            if not match:
                older = [j for j in range(0, loaded_j) if sets_for(j) == got]
                raise Fail("round %d: %d bindings loaded, not a complete recent set (deleted so far %d, last "
                           "load had %d deleted%s)" % (rnd, len(got), posted, loaded_j,
                                                       ", an older set: %d" % older[0] if older else ""))
            loaded_j = match[-1]
            # Deletions go on from what was loaded: later ones were lost with the crash.
            posted = loaded_j
            if rnd == 0:
                mode = os.stat(data).st_mode & 0o777
                if mode != 0o700:
                    raise Fail("data directory mode %o, not 700" % mode)
            first = time.monotonic()
            for _ in range(rng.randint(1, 3)):
                ip, mac = binding(order[posted])
                rc, out, err = d.ctl("delete", ip, "10", mac)
                if rc != 0:
                    raise Fail("round %d: delete %s: %s" % (rnd, ip, err))
                posted += 1
            if rnd % 10 == 9:
                # Now and then the save completes first and the kill follows.
                deadline = time.monotonic() + 10
                while d.status()["saves_completed"] < 1 and time.monotonic() < deadline:
                    time.sleep(0.02)
            else:
                # The save starts 300 ms after the first change and writes
                # for about 300 ms under the shim.
                time.sleep(max(0.0, first + rng.uniform(0.25, 0.7) - time.monotonic()))
            d.kill()
        for path in (main_file, copy_file):
            mode = os.stat(path).st_mode & 0o777
            if mode != 0o600:
                raise Fail("%s mode %o, not 600" % (path, mode))
        print("save_crash: %d rounds, %d deletions, %d starts restored the last good copy"
              % (args.rounds, posted, restores))
        if args.rounds >= 20 and restores == 0:
            raise Fail("no kill landed in a save: the test did not test anything")

        # A save that outlasts the stop limit (a second per 512 bytes: well
        # past 10 s for the 100 and more bindings left): exit 4, and the copy
        # is back at the next start.
        d = Daemon(args, work, dict(slow, DHCPSNOOP_SLOW_SAVE_US="1000000"))
        before = d.bindings()
        # The last round's deletions may have been lost with its kill.
        posted = [j for j in range(BINDINGS) if sets_for(j) == before][0]
        ip, mac = binding(order[posted])
        rc, out, err = d.ctl("delete", ip, "10", mac)
        if rc != 0:
            raise Fail("delete before the slow stop: " + err)
        time.sleep(0.8)
        started = time.monotonic()
        rc = d.stop()
        took = time.monotonic() - started
        if rc != 4:
            raise Fail("a stop with the save unfinished exited %d, not 4:\n%s" % (rc, d.tail()))
        if "did not finish within 10 s" not in d.tail():
            raise Fail("no message for the unfinished save:\n" + d.tail())
        print("save_crash: stop with an unfinished save: exit 4 after %.1f s" % took)
        d = Daemon(args, work)
        got = d.bindings()
        if got != before or not d.status()["restored_at_start"]:
            raise Fail("after the cut save: %d bindings loaded (before: %d), restored %s"
                       % (len(got), len(before), d.status()["restored_at_start"]))
        # A save that fails (the file's place taken by a directory) stops
        # saving: status and event say so, and SIGHUP starts it again.
        os.remove(main_file)
        os.mkdir(main_file)
        ip, mac = binding(order[posted])
        rc, out, err = d.ctl("delete", ip, "10", mac)
        if rc != 0:
            raise Fail("delete before the failed save: " + err)
        posted += 1
        deadline = time.monotonic() + 10
        while d.status()["saving"] and time.monotonic() < deadline:
            time.sleep(0.05)
        st = d.status()
        if st["saving"] or st["save_failures"] != 1:
            raise Fail("after a failed save: %s" % st)
        rc, out, err = d.ctl("events", "--json")
        if not any(e["code"] == 0x4C490001 for e in json.loads(out)):
            raise Fail("no event for the failed save: " + out)
        r = subprocess.run([args.ctl, "--control", d.sock, "status"], capture_output=True, text=True, timeout=30)
        if "saving: STOPPED after a failed save" not in r.stdout:
            raise Fail("dhcpsnoopctl status after a failed save: " + r.stdout)
        os.rmdir(main_file)
        d.proc.send_signal(signal.SIGHUP)
        deadline = time.monotonic() + 10
        text = ""
        while time.monotonic() < deadline:
            if os.path.exists(main_file):
                with open(main_file, newline="") as f:
                    text = f.read()
                if text.endswith("END\r\n"):
                    break
            time.sleep(0.05)
        if not d.status()["saving"] or text.count("\r\n") - 4 != len(sets_for(posted)):
            raise Fail("SIGHUP did not bring saving back: %s, %d lines" % (d.status(), text.count("\r\n") - 4))
        print("save_crash: a failed save stopped saving, SIGHUP started it again")
        r = subprocess.run([args.ctl, "--control", d.sock, "status"], capture_output=True, text=True, timeout=30)
        if r.returncode != 0 or "saving: on\n" not in r.stdout or "restored at start:" not in r.stdout:
            raise Fail("dhcpsnoopctl status: %d %s%s" % (r.returncode, r.stdout, r.stderr))
        rc = d.stop()
        if rc != 0:
            raise Fail("a clean stop exited %d" % rc)
        print("save_crash: passed")
        return 0
    except Fail as e:
        keep = True
        print("save_crash: FAILED: %s\n(work directory kept: %s)" % (e, work), file=sys.stderr)
        return 1
    finally:
        for p in RUNNING:
            if p.poll() is None:
                p.kill()
                p.wait()
        if not keep:
            subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    sys.exit(main())
