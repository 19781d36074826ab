#!/usr/bin/env python3
"""What Python's parser finds in a JSON text, and texts to try it on.

oracle.py paths FILE...         prints every node: the steps of its path, its type and value
oracle.py generate DIRECTORY N  writes N texts of the accepted subset, always the same ones

A step of a path is "." and the name, or "#" and an index. A number with a fraction is printed as the
integer nearest to it. Steps and values end with a unit separator, nodes and files with a record
separator, which are in no text.
"""
import json
import random
import sys


def nearest_integer(text):
    number = float(text)
    number = int(number + 0.5) if number >= 0 else int(number - 0.5)
    return max(-2**63, min(number, 2**63 - 1))


def emit(path, what):
    sys.stdout.buffer.write(f"{path}{what}\x1f\x1e".encode())


def walk(path, node):
    if isinstance(node, dict):
        emit(path, "object")
        for name, value in node.items():
            walk(f"{path}.{name}\x1f", value)
    elif isinstance(node, list):
        emit(path, "array")
        for index, value in enumerate(node):
            walk(f"{path}#{index}\x1f", value)
    elif isinstance(node, str):
        emit(path, f"string {node}")
    elif node is None or isinstance(node, bool):
        emit(path, json.dumps(node))
    else:
        emit(path, f"number {node}")


def number(random):
    if random.random() < 0.5:
        return str(random.choice([0, 1, -1, 2**63 - 1, -2**63, random.randint(-10**6, 10**6)]))
    while True:
        digits = str(random.getrandbits(random.choice([4, 20, 60])))
        fraction = str(random.getrandbits(random.choice([4, 20, 60])))
        if digits[0] != "0" or "0" not in fraction:
            return random.choice(["", "-"]) + digits + "." + fraction


def string(random):
    letters = ["a", "Z", "é", "€", "𝄞", " ", "/", "\\\\", '\\"', "\\/", "\\n", "\\t", "\\b", "\\f",
               "\\r", "\\u0041", "\\u007f", "{", "]", ",", ":"]
    return '"' + "".join(random.choices(letters, k=random.choice([0, 1, 7, 8, 9, 30]))) + '"'


def space(random):
    return random.choice(["", "", "", " ", "\n", "\r\n\t "])


def value(random, depth):
    kind = random.random()
    if depth == 0 or kind < 0.4:
        return random.choice([number, string, lambda _: "true", lambda _: "false",
                              lambda _: "null"])(random)
    items = []
    for _ in range(random.choice([0, 1, 3, 12])):
        item = space(random) + value(random, depth - 1) + space(random)
        if kind < 0.7:
            item = space(random) + string(random) + space(random) + ":" + item
        if item.strip()[-1].isdigit():
            item += " "
        items.append(item)
    brackets = "{}" if kind < 0.7 else "[]"
    return brackets[0] + space(random) + ",".join(items) + brackets[1]


def main(command, *arguments):
    if command == "paths":
        for name in arguments:
            with open(name, encoding="utf-8") as file:
                walk("", json.load(file, parse_float=nearest_integer))
            sys.stdout.buffer.write(b"\x1e")
        return
    directory, count = arguments
    for seed in range(int(count)):
        source = random.Random(seed)
        with open(f"{directory}/generated{seed}.json", "w", encoding="utf-8") as file:
            file.write("[" + ",".join(value(source, 5) + " " for _ in range(6)) + "]")


if __name__ == "__main__":
    main(*sys.argv[1:])
