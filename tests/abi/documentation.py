"""Every exported function is declared in a public header, once, below a comment that begins with
its name."""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
exported = set(re.findall(r"^ +(zq_\w+);", (root / "zq.map").read_text(), re.M))
declaration = re.compile(r"(/\*(?:(?!\*/).)*\*/)\s*ZQ_API\s[^;()]*?\b(zq_\w+)\(", re.S)
any_declaration = re.compile(r"^ZQ_API\s[^;()]*?\b(zq_\w+)\(", re.M)

faults = []
declared = []
documented = set()
for header in sorted(root.rglob("*.h")):
    if "internal" in header.parts:
        continue
    text = header.read_text()
    declared += any_declaration.findall(text)
    for comment, name in declaration.findall(text):
        first = re.sub(r"^/\*+\s*", "", comment).split(None, 1)[0]
        if first == name:
            documented.add(name)
        else:
            faults.append(f"{header}: the comment above {name} begins with '{first}'")

faults += [f"{name} is declared {declared.count(name)} times" for name in sorted(exported) if declared.count(name) != 1]
faults += [f"{name} is declared but not exported" for name in sorted(set(declared) - exported)]
faults += [f"{name} has no comment of its own" for name in sorted(set(declared) - documented)]
print("\n".join(faults) or f"{len(declared)} functions")
sys.exit(bool(faults))
