# Fails when a file includes one of a higher layer or of a sibling program, or when
# includes go round in a circle. Usage: include_layers.py SOURCE_DIR
import os, re, sys

# What each part may include beside itself: the driver's code sees the public header and
# the layers below it; the hosts see the public header, the host layer and support/.
MAY_SEE = {'device': {'include'}, 'service': {'device', 'include'}, 'include': set(),
           'support': {'include'}, 'host': {'include', 'support'},
           'gateway': {'host', 'include', 'support'}, 'tools/poll': {'host', 'include', 'support'},
           'tools/sim': {'host', 'include', 'support'}}
SEARCH = ['include', 'device', 'service', 'host/include', 'support/include']
root = sys.argv[1]
os.chdir(root)
part = lambda f: next(p for p in MAY_SEE if f.startswith(p + '/'))
files = {os.path.join(d, f) for p in MAY_SEE for d, _, fs in os.walk(p) for f in fs if f.endswith(('.h', '.cpp'))}
graph, faults = {}, []
for f in sorted(files):
    graph[f] = []
    for inc in re.findall(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', open(f, errors='replace').read(), re.M):
        found = [c for c in (os.path.normpath(os.path.join(b, inc)) for b in [os.path.dirname(f)] + SEARCH) if c in files]
        if found:
            graph[f].append(found[0])
            if part(found[0]) != part(f) and part(found[0]) not in MAY_SEE[part(f)]:
                faults.append(f'{f} includes {found[0]}, above or beside {part(f)}/')
state, path = {}, []
def visit(f):
    state[f] = 'open'
    path.append(f)
    for g in graph[f]:
        if state.get(g) == 'open':
            faults.append('circle: ' + ' -> '.join(path[path.index(g):] + [g]))
        elif g not in state:
            visit(g)
    path.pop()
    state[f] = 'done'
for f in sorted(graph):
    if f not in state:
        visit(f)
print('\n'.join(faults) or f'{len(files)} files: no circle, no include across the layers')
sys.exit(1 if faults else 0)
