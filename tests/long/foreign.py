#!/usr/bin/env python3
"""Programs that know nothing of the heap collector, with it and without: output, errors, status and files must be the same.

usage: foreign.py [short | NAME...]    (all of them; those named; `short` leaves out the programs of the system)
"""
import hashlib
import os
import shutil
import subprocess
import sys

import common
from common import need

# Programs of the system, each in an empty directory.
battery = {
    "bash": ["bash", "-c", "trap 'echo caught' TERM; kill -TERM $$; f() { local x=$1; echo ${x^^}; }; f a; echo {1..500}; exit 7"],
    "dash": ["dash", "-c", "for i in 1 2 3; do echo $i & wait; done; exit 3"],
    "perl": ["perl", "-e", "my %h; $h{$_ % 977} .= $_ for 1..50000; print scalar keys %h; warn 'careful'; exit 9"],
    "perl fork": ["perl", "-e", "$|=1; for (1..5) { if (!fork) { exit $_ } wait; print $? >> 8 }"],
    "python3": ["/usr/bin/python3", "-c", "import json,threading,ssl,sqlite3,ctypes\nprint(len(json.dumps(list(range(9999)))))\n"
                "t=[threading.Thread(target=lambda: sorted(range(9999))) for _ in range(8)]\n[x.start() for x in t];[x.join() for x in t]\nraise SystemExit(5)"],
    "python3 multiprocessing": ["/usr/bin/python3", "-c", "import multiprocessing as m\nif __name__=='__main__':\n"
                                " with m.Pool(3) as p: print(p.map(abs, range(-9, 9)))"],
    "node": ["node", "-e", "const a=[];for(let i=0;i<1e5;i++)a.push({i});console.log(a.length);process.exitCode=4"],
    "git": ["sh", "-c", "git init -q -b main . && echo a>f && git add f && GIT_COMMITTER_DATE=@1 git -c user.name=a -c user.email=a@b "
            "commit -qm x --date=@1 && git gc -q && git log --stat && git fsck --no-progress; status=$?; rm -rf .git; exit $status"],
    "git itself": ["git", "--version"],
    "tar": ["sh", "-c", "mkdir d && seq 5000 >d/n && tar -cf a.tar --mtime=@1 --owner=0 --group=0 --sort=name d && tar -tvf a.tar && rm -r d"],
    "tar itself": ["tar", "-cf", "a.tar", "--mtime=@1", "/etc/debian_version"],
    "gzip": ["sh", "-c", "seq 50000 | gzip -9n > s.gz; gzip -dc s.gz | md5sum"],
    "xz": ["sh", "-c", "seq 50000 | xz -T2 > s.xz; xz -dc s.xz | md5sum"],
    "zstd": ["sh", "-c", "seq 50000 | zstd -q -T2 > s.zst; zstd -dc s.zst | md5sum"],
    "bzip2": ["bzip2", "--help"],
    "sed": ["sed", "-n", "s/[0-9]\\+/<&>/gp", "/etc/services"],
    "awk": ["awk", "BEGIN { for (i = 0; i < 30000; ++i) a[i % 331] = a[i % 331] i; for (k in a) n += length(a[k]); print n; exit 2 }"],
    "sort": ["sort", "--parallel=4", "-S", "1M", "-r", "/etc/services"],
    "find": ["find", "/usr/share/doc", "-maxdepth", "1", "-newermt", "1990-01-01"],
    "grep": ["grep", "-rEc", "([a-z]+).*\\1", "/etc/services"],
    "make": ["sh", "-c", "printf 'all: a b c\\n%%:\\n\\t@echo $@ > $@\\n' > Makefile; make -j3 -s; ls"],
    "make itself": ["make", "--version"],
    "gcc": ["sh", "-c", "echo 'int main(void){return 6;}' > a.c; gcc -O2 -o a a.c; ./a; echo $?; rm a"],
    "gcc itself": ["gcc", "-E", "-dM", "-x", "c", "/dev/null"],
    "g++": ["sh", "-c", "printf '#include <map>\\nint main(){std::map<int,int> m;m[1]=2;return m[1];}' > a.cpp; g++ -O1 -S a.cpp"],
    "ld": ["ld", "--version"],
    "objdump": ["objdump", "-d", "--no-show-raw-insn", "/usr/bin/true"],
    "cmake": ["cmake", "--version"],
    "dpkg-query": ["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", "bash", "libc6", "no-such-package"],
    "apt-cache": ["apt-cache", "policy", "bash"],
    "openssl": ["sh", "-c", "seq 9999 | openssl dgst -sha256; openssl enc -aes-128-cbc -K 00 -iv 00 -in /etc/services | md5sum"],
    "sqlite3": ["sqlite3", "a.db", "create table t(x); insert into t select value from generate_series(1,2000); select sum(x) from t;"],
    "gdb": ["gdb", "-nx", "-batch", "-ex", "print 6*7", "/usr/bin/true"],
    "curl": ["curl", "-sS", "file:///etc/debian_version"],
    "ssh": ["ssh", "-G", "host.invalid"],
    "gpg": ["gpg", "--dump-options"],
    "vim": ["vim", "-u", "NONE", "-es", "-c", "%s/tcp/TCP/g", "-c", "w! out", "-c", "q!", "/etc/services"],
    "jq": ["jq", "-n", "[range(5000)] | map(. * 2) | add"],
    "bc": ["sh", "-c", "echo '2^2000' | bc"],
    "tclsh": ["sh", "-c", "echo 'for {set i 0} {$i<9999} {incr i} {lappend l $i}; puts [llength $l]; exit 3' | tclsh"],
    "xmllint": ["xmllint", "--noout", "/nonexistent.xml"],
    "file": ["file", "-b", "/usr/bin/perl"],
    "diff": ["diff", "-u", "/etc/services", "/etc/protocols"],
    "valgrind": ["valgrind", "--version"],
    "ls": ["ls", "-l", "/usr/lib", "/nonexistent"],
}
# Programs of tests/host/subject.c.
hostile = ["heap", "threads", "modules", "forks", "exits", "quick", "exitFromThread", "exitWhileBusy", "forkWhileBusy", "mainLeaves",
           "closesAll", "standardFiles", "ownEnvironment", "allocateInHandler", "exitInHandler", "aborts", "smallStack",
           "reusesDescriptors", "forkInThread", "spawnsWhileBusy", "loadsStorm", "deepRecursion", "alternateStack",
           "jumpsOutOfHandlers", "staticStorage", "veryManyThreads"]
# An end by a signal is not told, and neither is one by exit() from a signal handler in the midst of a heap call.
unobserved = {"aborts", "exitInHandler"}


def files_of(directory):
    found = {}
    for where, directories, names in os.walk(directory):
        for name in directories + names:
            path = os.path.join(where, name)
            content = ""
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    content = hashlib.md5(file.read()).hexdigest()
            found[os.path.relpath(path, directory)] = (os.lstat(path).st_mode, content)
    return found


def outcome(command, observer):
    """What the command did in an empty directory that has the same name each time."""
    os.mkdir("work")
    try:
        done = subprocess.run(observer + command, cwd="work", stdin=subprocess.DEVNULL, capture_output=True, timeout=240,
                              check=False)
        status = done.returncode if done.returncode >= 0 else 128 - done.returncode
        return {"status": status, "output": done.stdout, "errors": done.stderr, "files": files_of("work")}
    except subprocess.TimeoutExpired:
        return {"status": "does not end"}
    finally:
        shutil.rmtree("work")


def run():
    chosen = sys.argv[1:]
    commands = {name: [os.path.join(common.build, "subject"), name] for name in hostile}
    if chosen != ["short"]:
        commands = {**battery, **commands}
    if chosen and chosen != ["short"]:
        commands = {name: commands[name] for name in chosen}
    same, missing, different = [], [], []
    for name, command in commands.items():
        if shutil.which(command[0]) is None:
            missing.append(name)
            continue
        without = outcome(command, [])
        for options in ([], ["-follow"]):
            observer = [common.veskrun, "-out", os.path.abspath("observed/r.xml"), "-top", "0", *options, "--"]
            os.mkdir("observed")
            observed = outcome(command, observer)
            results = [path for path in os.listdir("observed") if path.endswith(".xml")]
            need(results or name in unobserved, f"{name} was not observed")
            for path in results:
                common.read_result(os.path.join("observed", path))
            shutil.rmtree("observed")
            for what, value in without.items():
                if observed.get(what) != value:
                    different.append(name)
                    print(f"foreign: {name} {' '.join(options)}: {what}: {str(value)[:1500]} without, "
                          f"{str(observed.get(what))[:1500]} with", flush=True)
                    break
        same.append(name)
    need(not different, f"{len(set(different))} programs came out differently: {', '.join(sorted(set(different)))}")
    print(f"foreign: {len(same)} programs came out the same with the heap collector, and with their children followed"
          + (f"; not installed here: {', '.join(missing)}" if missing else ""))


common.main("foreign", run)
