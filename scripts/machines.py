"""Machines for pages of the manual and recorded sessions: network and mount namespaces, each with an installation.

A program calls enter() first, which starts it again in namespaces of its own, where root's rights reach nothing outside,
then make_network() and a Machine for each. Everything ends with the program. Needs util-linux and iproute2.
"""

import os
import subprocess
import sys

USER = 1000  # of every machine
ADDRESSES = {"anna": "10.0.0.1", "boris": "10.0.0.2", "boris2": "10.0.0.3"}
INSIDE = "IPCHANNEL_INSIDE"  # set in the environment of a program that has entered


class Failed(Exception):
    """A machine cannot be made, or a program on it did not do what was asked."""


def enter():
    """Goes on in namespaces of its own. @return what stands in the way; else it does not return the first time"""
    if INSIDE in os.environ:
        return None
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    unshare = ["unshare", *user, "--net", "--mount", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc"]
    tried = subprocess.run([*unshare, "ip", "link", "add", "name", "x", "type", "veth", "peer", "name", "y"],
                           capture_output=True, text=True, check=False)
    if tried.returncode != 0:
        return f"no machines can be made here: {tried.stderr.strip()}"
    os.environ[INSIDE] = "1"
    os.execvp("unshare", [*unshare, sys.executable, "-B", *sys.argv])
    return None


def is_alone():
    """Whether nobody but the caller exists in our namespaces: an ordinary user has started the run."""
    with open("/proc/self/uid_map", encoding="ascii") as uids:
        return uids.read().split()[2] == "1"


def quiet(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)}: {done.stderr.strip()}")


def make_network():
    """What machines share: a network, and /media, which is carried from one to another."""
    quiet("ip", "link", "add", "name", "hub", "type", "bridge")
    quiet("ip", "link", "set", "hub", "up")
    quiet("mount", "-t", "tmpfs", "-o", "mode=777", "tmpfs", "/media")


class Machine:
    """Namespaces held by a process that sleeps: a network with an address, files, a user with the machine's name and a
    home, and an installation in /opt/abonent, whose bin/ is that of a build.
    """

    def __init__(self, name, binaries):
        self.name = name
        script = f"""set -e
            hostname {name}
            mount --bind "$1" /mnt
            for place in /opt /home /tmp /run; do mount -t tmpfs tmpfs $place; done
            mkdir -p /opt/abonent/bin /home/{name}
            mount --move /mnt /opt/abonent/bin
            cp -dR --preserve=mode /etc /run/etc 2>/dev/null || true  # what may be read of it
            mount --bind /run/etc /etc
            sed -i "1i {name}:x:{USER}:{USER}::/home/{name}:/bin/bash" /etc/passwd
            sed -i "1i {name}:x:{USER}:" /etc/group
            [ "$2" = alone ] || chown -R {USER}:{USER} /home/{name}
            [ "$2" = alone ] || chown {USER}:{USER} /opt/abonent
            ip link set lo up
            echo ready
            exec sleep infinity"""
        self.holder = subprocess.Popen(["unshare", "--net", "--mount", "--uts", "sh", "-c", script, "sh", binaries,
                                        "alone" if is_alone() else ""],
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        said = self.holder.stdout.readline().strip()
        if said != "ready":
            raise Failed(f"no machine {name}: {said}")
        pid = str(self.holder.pid)
        cable = f"m{len(name)}{name[:8]}"
        quiet("ip", "link", "add", "name", cable, "type", "veth", "peer", "name", "eth0", "netns", pid)
        quiet("ip", "link", "set", cable, "master", "hub", "up")
        enter = ["nsenter", "-t", pid, "--net", "ip"]
        quiet(*enter, "address", "add", f"{ADDRESSES[name]}/24", "dev", "eth0")
        quiet(*enter, "link", "set", "eth0", "up")
        self.environment = {"HOME": f"/home/{name}", "USER": name, "LOGNAME": name, "LANG": "C.UTF-8", "TERM": "dumb",
                            "PATH": "/opt/abonent/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}

    def command(self, text, with_all_rights=False):
        """What to start so that the machine runs a line of a shell, as its user or with all rights."""
        # Without capabilities even the only user of a namespace is held by owners and modes.
        less = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
        if not is_alone():
            less += [f"--reuid={USER}", f"--regid={USER}", "--clear-groups"]
        return ["nsenter", "-t", str(self.holder.pid), "--net", "--mount", "--uts",
                *([] if with_all_rights else less), "bash", "-c", f"cd; {text}"]
