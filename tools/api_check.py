#!/usr/bin/env python3
"""The library's public surface, read off a build: every function the library
exports must be reached by a program of the project (gvexmatch and its
companions), not only by tests or benchmarks. The build links with
--gc-sections, so a program holds exactly the functions it reaches. Reports
the library functions no program reaches, split into those a test or
benchmark reaches and those nothing reaches; exits 1 when there are any.
Exact on an unoptimised build, where no call is inlined away
(tools/api_check.sh makes one).

usage: api_check.py BUILD_DIR
"""
import os
import re
import subprocess
import sys

# The programs of the project; their folder in the build and file name.
PROGRAMS = ['gvexmatch', 'report/gvexreport', 'mpi/gvexmatch_mpi', 'tools/gvex_makemic', 'relion/gvexmatch_relion',
            'tune/gvexmatch_tune']
# Made by the compilers for their own use, or local to one file.
SKIP = re.compile(r'^(__cudaRegister|__nv_|__cuda|_GLOBAL__)|device_stub|_GLOBAL__N_')


def functions(path, kinds='TW'):
    """The functions a file defines; 'T' alone leaves out the weak ones
    (template instances and inline functions, the headers' business)."""
    out = subprocess.run(['nm', '-g', '--defined-only', path], capture_output=True, text=True).stdout
    names = set()
    for line in out.splitlines():
        parts = line.split()
        if len(parts) == 3 and parts[1] in kinds:
            names.add(canonical(parts[2]))
    return names


def canonical(name):
    """One name for the constructor and destructor variants."""
    return re.sub(r'([CD])[0-5](E|Ev)', r'\1x\2', name)


def demangle(names):
    if not names:
        return []
    out = subprocess.run(['c++filt'], input='\n'.join(names), capture_output=True, text=True, check=True).stdout
    return out.splitlines()


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = sys.argv[1]
    archive = os.path.join(build, 'libgvex.a')
    if not os.path.exists(archive):
        sys.exit(f'api_check: no library at {archive}')
    library = set()
    for lib in (archive, os.path.join(build, 'report', 'libgvex_report.a')):
        if os.path.exists(lib):
            library |= {n for n in functions(lib, 'T') if not SKIP.search(n)}
    reached, tested = set(), set()
    for prog in PROGRAMS:
        path = os.path.join(build, prog)
        if os.path.exists(path):
            reached |= functions(path)
    for folder in ('tests', 'bench'):
        d = os.path.join(build, folder)
        for f in os.listdir(d) if os.path.isdir(d) else []:
            path = os.path.join(d, f)
            if os.path.isfile(path) and os.access(path, os.X_OK) and not f.endswith('.sh'):
                tested |= functions(path)
    strong = library
    dead = sorted(n for n in strong - reached - tested)
    test_only = sorted(n for n in (strong & tested) - reached)
    for title, names in (('reached by no program nor test', dead), ('reached only by tests or benchmarks', test_only)):
        for shown in demangle(names):
            print(f'{title}: {shown}')
    print(f'api_check: {len(strong)} library functions, {len(dead)} reached by nothing, '
          f'{len(test_only)} only by tests or benchmarks')
    sys.exit(1 if dead or test_only else 0)


if __name__ == '__main__':
    main()
