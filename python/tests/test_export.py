"""What other tools are handed."""

import csv
import json
import pathlib
import shutil
import struct
import subprocess
from typing import Any, Dict, Iterator, Tuple

import pytest
from conftest import LIMIT, ROOT
from test_recording import write_recording

PROTO = """syntax = "proto3";
package shop;
enum State { OPEN = 0; PAID = 1; }
message Order {
  message Item { string name = 1; uint32 count = 2; }
  repeated Item items = 1;
  map<string, double> prices = 2;
  State state = 3;
  bytes seal = 4;
  Item gift = 5;
  optional int64 number = 6;
}
"""
ORDER = b"\x0a\x08\x0a\x04bolt\x10\x64\x18\x01\x22\x02\xff\x00"  # items, state, seal
NODE = """
const { McapStreamReader } = require("@mcap/core"), reader = new McapStreamReader();
reader.append(require("fs").readFileSync(process.argv[1]));
for (let record; (record = reader.nextRecord()); )
  console.log(JSON.stringify(record, (key, value) => typeof value == "bigint" ? String(value)
    : value instanceof Map ? [...value] : value instanceof Uint8Array ? Buffer.from(value).toString("hex") : value));
console.log(JSON.stringify({ type: "end", done: reader.done(), left: reader.bytesRemaining() }));
"""


@pytest.fixture
def run(tmp_path: pathlib.Path) -> pathlib.Path:
    (tmp_path / "order.proto").write_text(PROTO)
    return write_recording(
        tmp_path / "run.jsonl", (0.25, 1, "to-server", "shop.Order", ORDER), (1, 1, "to-client", "Tick", b"a,\n\"b"),
        (2, 2, "to-server", "shop.Order", b"\xff"), (2, 2, "to-server", "shop.Order", b""),
        (3, 2, "to-server", "\udcff", b""),
    )  # fmt: skip


@pytest.fixture
def exported(start: Any, run: pathlib.Path) -> Any:
    def exported(*options: str) -> str:
        program = start("klvmsg", "export", run, *options)
        code, output, errors = program.end()
        assert code == 0 and "exported" in errors, errors
        return str(output)

    return exported


def proto(run: pathlib.Path) -> Tuple[str, ...]:
    if not shutil.which("protoc"):
        pytest.skip("protoc is missing")
    pytest.importorskip("google.protobuf")
    return ("--proto", str(run.with_name("order.proto")))


def test_a_table_and_objects_have_each_message(exported: Any) -> None:
    options = ("--text", "Tick", "--column", "len(body)", "--column", "connection * 2")
    rows = list(csv.DictReader(exported("--csv", *options).splitlines(keepends=True)))
    objects = json.loads(exported("--json", *options))
    assert [row["time"] for row in rows][:2] == ["1000000000.250000", "1000000001.000000"]
    assert rows[1]["decoded"] == objects[1]["decoded"] == 'a,\n"b'
    assert rows[1]["body"] == objects[1]["body"] == "05000000612c0a2262"
    assert (rows[1]["len(body)"], rows[0]["len(body)"], rows[2]["connection * 2"]) == ("5", "", "4")
    assert (objects[1]["len(body)"], objects[0]["len(body)"]) == (5, None)
    assert rows[4]["type"] == "\\udcff" and objects[4]["type"] == "\udcff"
    assert len(rows) == len(objects) == 5
    assert json.loads(exported("--json", "--type", "None")) == []


def test_protocol_buffers_are_decoded(exported: Any, run: pathlib.Path) -> None:
    objects = json.loads(exported("--json", *proto(run), "--where", "state == 'PAID' or not items"))
    assert objects[0]["decoded"] == {"items": [{"name": "bolt", "count": 100}], "prices": {},
                                     "state": "PAID", "seal": "ff00"}  # fmt: skip
    assert len(objects) == 5 and "decoded" not in objects[2], "what cannot be decoded stays hexadecimal"


def records(data: bytes) -> Iterator[Tuple[int, bytes]]:
    """The whole ones of an MCAP file that may be cut."""
    assert data.startswith(b"\x89MCAP0\r\n")
    at = 8
    while at + 9 <= len(data) and data[at] != 0x89:
        kind, length = struct.unpack_from("<BQ", data, at)
        if at + 9 + length > len(data):
            return
        yield kind, data[at + 9 : at + 9 + length]
        at += 9 + length


def test_mcap_can_be_read_up_to_where_it_was_cut(
    exported: Any, run: pathlib.Path, tmp_path: pathlib.Path
) -> None:
    exported("--mcap", "-o", str(tmp_path / "out.mcap"))
    data = (tmp_path / "out.mcap").read_bytes()
    assert data.endswith(b"\x89MCAP0\r\n")
    assert [kind for kind, _ in records(data)] == [1, 3, 4, 5, 3, 4, 5, 4, 5, 5, 3, 4, 5, 15, 2]
    assert [kind for kind, _ in records(data[:-100])].count(5) >= 2


def test_mcap_is_read_by_its_own_reader(exported: Any, run: pathlib.Path, tmp_path: pathlib.Path) -> None:
    modules = {"NODE_PATH": f"{ROOT / 'build' / 'node_modules'}"}
    node = shutil.which("node")
    if not node or subprocess.run([node, "-e", "require('@mcap/core')"], env=modules, check=False,
                                  stderr=subprocess.DEVNULL).returncode:  # fmt: skip
        pytest.skip("the reader of MCAP files, npm's @mcap/core, is not in build/node_modules")
    exported("--mcap", *proto(run), "--text", "Tick", "-o", str(tmp_path / "out.mcap"))
    read = subprocess.run([node, "-e", NODE, str(tmp_path / "out.mcap")], env=modules, check=True,
                          stdout=subprocess.PIPE, timeout=LIMIT).stdout.decode()  # fmt: skip
    found: Dict[str, Any] = {}
    for line in read.splitlines():
        found.setdefault(json.loads(line)["type"], []).append(json.loads(line))
    assert found["end"] == [{"type": "end", "done": True, "left": 0}]
    channels = {channel["id"]: channel for channel in found["Channel"]}
    schemas = {schema["id"]: schema for schema in found["Schema"]}
    first, second = found["Message"][:2]
    channel = channels[first["channelId"]]
    assert channel["messageEncoding"] == "protobuf" and channel["topic"] == "/to-server/shop.Order"
    assert schemas[channel["schemaId"]]["name"] == "shop.Order"
    assert b"Item" in bytes.fromhex(schemas[channel["schemaId"]]["data"])
    assert bytes.fromhex(first["data"]) == ORDER and first["logTime"] == "1000000000250000000"
    channel = channels[second["channelId"]]
    assert json.loads(bytes.fromhex(second["data"])) == {"body": 'a,\n"b'}
    assert channel["messageEncoding"] == "json" and channel["metadata"] == [["connection", "1"]]
    wrong = channels[found["Message"][2]["channelId"]]
    assert wrong["messageEncoding"] == "json" and len(found["Message"]) == 5
