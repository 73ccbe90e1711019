"""Compares the summary of `pegeir-watch --json --summary` with `ip -j link` and `ip -j -6 neigh`.

Every interface and every IPv6 neighbour must be on both sides and alike.  Exit status 1 otherwise."""

import json
import sys


def load(path):
    with open(path) as file:
        return json.load(file)


with open(sys.argv[1]) as file:
    known = [item for item in map(json.loads, file) if item["event"] == "known"]
links = load(sys.argv[2])
index = {link["ifname"]: link["ifindex"] for link in links}

kernel = {("link", link["ifindex"]): (link["ifname"], link["mtu"], link.get("address"), "UP" in link["flags"])
          for link in links}
for entry in load(sys.argv[3]):
    key = ("neighbour", index[entry["dev"]], entry["dst"])
    kernel[key] = (entry.get("lladdr"), "router" in entry)

consumer = {}
for item in known:
    if item["kind"] == "link":
        consumer["link", item["ifindex"]] = (item["name"], item["mtu"], item["mac"], item["up"])
    elif item["kind"] == "neighbour":
        consumer["neighbour", item["ifindex"], item["address"]] = (item["mac"], item["router"])

different = [key for key in sorted(set(kernel) | set(consumer), key=str) if kernel.get(key) != consumer.get(key)]
for key in different:
    print(f"{key}: the kernel holds {kernel.get(key)}, the consumer knows {consumer.get(key)}")
if different or not kernel:
    sys.exit(1)
print(f"{len(links)} interfaces and {len(kernel) - len(links)} neighbours, all alike")
