#!/usr/bin/env python3
"""Programs that know nothing of the heap collector, with it and without: output, errors, status and files must be the same.

usage: foreign.py [short | NAME...]    (all of them; those named; `short` leaves out what the suite does not need)
"""
import hashlib
import os
import shutil
import subprocess
import sys

import common
from common import build, need

# Programs of the system, each in an empty directory.
battery = {
    "bash": ["bash", "-c", "trap 'echo caught' TERM; kill -TERM $$; f() { local x=$1; echo ${x^^}; }; f a; echo {1..500}; exit 7"],
    "dash": ["dash", "-c", "for i in 1 2 3; do echo $i & wait; done; exit 3"],
    "perl": ["perl", "-e", "my %h; $h{$_ % 977} .= $_ for 1..50000; print scalar keys %h; warn 'careful'; exit 9"],
    "perl fork": ["perl", "-e", "$|=1; for (1..5) { if (!fork) { exit $_ if $_ > 1; exec 'sh', '-c', 'exit 9' } wait; print $? >> 8 }"],
    "python3": ["/usr/bin/python3", "-c", "import json,threading,ssl,sqlite3,ctypes\nprint(len(json.dumps(list(range(9999)))))\n"
                "t=[threading.Thread(target=lambda: sorted(range(9999))) for _ in range(8)]\n[x.start() for x in t];[x.join() for x in t]\n"
                "import subprocess;print(subprocess.run(['sh','-c','echo child; exit 4']).returncode,ctypes.CDLL(None).abs(-3))\n"
                "raise SystemExit(5)"],
    "python3 multiprocessing": ["/usr/bin/python3", "-c", "import multiprocessing as m\nif __name__=='__main__':\n"
                                " with m.Pool(3) as p: print(p.map(abs, range(-9, 9)))"],
    "python3 descriptors": ["/usr/bin/python3", "-c", "import os;f=lambda:os.open('/dev/null',0)\nprint(f());os.closerange(3,2000);print(f(),f())"],
    "bash descriptors": ["bash", "-c", "exec 3>f 200>g; echo a >&3; echo b >&200; cat f g"],
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
    "sort": ["sort", "--parallel=4", "-S", "1M", "-r", "/var/lib/dpkg/status"],
    "xargs": ["sh", "-c", "mkdir d && touch d/1 d/2 d/3 && find d -type f | sort | xargs -P 2 -n 1 basename | sort | tr 1-3 a-c; exit 3"],
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
# Of these, what the suite looks at.
suite = ["bash", "bash descriptors", "perl", "perl fork", "python3", "python3 descriptors", "git", "git itself", "tar", "tar itself",
         "sort", "xargs", "find", "gcc", "gcc itself", "ls"]
# Programs of tests/host/subject.c: how their results say that they end, and the size of a block that is among
# the last, if one is certain.
hostile = {
    "heap": ("exit 5", 4002), "threads": ("exit 0", 2003), "modules": ("exit 0", 777), "forks": ("exec 0", 3000),
    "exits": ("exit 21", 4001), "quick": ("quick exit 22", 4001), "exitFromThread": ("quick exit 23", 0),
    "exitWhileBusy": ("exit 24", 0), "forkWhileBusy": ("exit 0", 16), "mainLeaves": ("exit 0", 4003), "closesAll": ("exit 35", 4002),
    "standardFiles": ("exit 39", 100), "ownEnvironment": ("exit 0", 4002), "allocateInHandler": ("exit 0", 14),
    "exitInHandler": ("exit 41", 16), "aborts": ("", 0), "reusesDescriptors": ("exec 0", 3000),
    "forkInThread": ("exit 0", 16), "spawnsWhileBusy": ("exit 0", 16), "loadsStorm": ("exit 0", 777),
    "deepRecursion": ("exit 0", 7000), "alternateStack": ("exit 0", 7100), "jumpsOutOfHandlers": ("exit 0", 7300),
    "staticStorage": ("exit 0", 7400), "veryManyThreads": ("exit 0", 7501)}
# An end by a signal is not told, and neither is one by exit() from a signal handler in the midst of a heap call.
unobserved = {"aborts", "exitInHandler"}
# The last one does to errno what no collector should.
observers = {
    "with the heap collector": ["-top", "0"],
    "with its children followed": ["-top", "0", "-follow"],
    "with the events collector": ["-collector", build + "/libevent_collector.so"]}


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


def outcome(command, observer=()):
    """What the command did in an empty directory that has the same name each time."""
    os.mkdir("work")
    try:
        return {**common.run([*observer, *command], cwd="work")._asdict(), "files": files_of("work")}
    except subprocess.TimeoutExpired:
        return {"status": "does not end"}
    finally:
        shutil.rmtree("work")


def check_results(name):
    """Each adds up, and one of them knows the end."""
    results = [common.Result(os.path.join("observed", path)) for path in os.listdir("observed") if path.endswith(".xml")]
    need(results or name in unobserved, f"{name} was not observed")
    if results and name in hostile:
        end, size = hostile[name]
        need(any(f"{each.end} {each.status}" == end and (size == 0 or each.all_of_size(size)) for each in results),
             f"{name}: no result has the end '{end}' with a block of {size} bytes")


def run():
    chosen = sys.argv[1:]
    commands = {**battery, **{name: [common.subject, name] for name in hostile}}
    if chosen:
        commands = {name: commands[name] for name in ([*suite, *hostile] if chosen == ["short"] else chosen)}
    missing = [name for name, command in commands.items() if shutil.which(command[0]) is None]
    different = set()
    for name, command in commands.items():
        if name in missing:
            continue
        alone = outcome(command)
        for how, options in observers.items():
            os.mkdir("observed")
            observer = [common.veskrun, *options, "-out", "../observed/r.xml", "--"] # from "work"
            observed = outcome(command, observer)
            if "-collector" not in options:
                check_results(name)
            shutil.rmtree("observed")
            for what in (what for what, value in alone.items() if observed.get(what) != value):
                different.add(name)
                print(f"foreign: {name}: {what}: {str(alone[what])[:1500]} alone, {str(observed.get(what))[:1500]} {how}", flush=True)
    need(not different, f"{len(different)} programs came out differently: {', '.join(sorted(different))}")
    print(f"foreign: {len(commands) - len(missing)} programs came out the same {', '.join(observers)}"
          + (f"; not installed here: {', '.join(missing)}" if missing else ""))


common.main("foreign", run)
