#!/usr/bin/env python3
"""Writes the seed corpus of update_metadata (run from anywhere)."""
import json
import os

HERE = os.path.dirname(os.path.abspath(__file__))
SIGNED, ALTERED, ROGUE, RAW = 1, 2, 3, 0
DOWNLOAD, CONFIRM, THEN_CONFIRM = 1 << 2, 2 << 2, 3 << 2
STATE, SMALL = 1 << 4, 1 << 5

PAYLOAD = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ"
DOC = json.dumps({"version": "2.0.0", "sha256": "auto", "blockSize": 16,
                  "payload": "su/payload/2.0.0", "mandatory": True, "autoAnswer": False})
BLOCKS = ["206auto"] * 3
EVIL = json.dumps({"version": "6.6.6", "sha256": "a" * 64, "size": 1, "blockSize": 1,
                   "blockSha256": ["b" * 64], "payload": "su/evil"})


def state(**fields):
    stored = {"envelope": "auto", "source": 1, "location": "", "permission": 1, "state": 2,
              "verifiedBytes": 16, "stagingLocation": "auto"}
    stored.update(fields)
    return json.dumps(stored)


SEEDS = {
    "download-and-confirm": (SIGNED | THEN_CONFIRM, [DOC, PAYLOAD, "200auto"] + BLOCKS + ["200{}"]),
    "download-small-pieces": (SIGNED | DOWNLOAD | SMALL, [DOC, PAYLOAD, "200auto"] + ["206auto"] * 6),
    "confirm-at-once": (SIGNED | CONFIRM, [DOC, PAYLOAD, "200auto"] + BLOCKS + ["503", "200"]),
    "offered-no-permission": (SIGNED, [DOC, PAYLOAD, "200auto"]),
    # The payload doubles as the document the altered envelope carries.
    "altered": (ALTERED | DOWNLOAD, [DOC, EVIL, "200auto", "206auto"]),
    "rogue": (ROGUE | DOWNLOAD, [DOC, PAYLOAD, "200auto", "206auto"]),
    "raw-unsigned": (RAW | DOWNLOAD, [DOC, PAYLOAD, "200auto", "206auto"]),
    "no-update-204": (SIGNED, [DOC, PAYLOAD, "204"]),
    "metadata-500-then-ok": (SIGNED | DOWNLOAD, [DOC, PAYLOAD, "500", "500", "200auto"] + BLOCKS),
    "block-wrong-then-right": (SIGNED | DOWNLOAD, [DOC, PAYLOAD, "200auto", "206xxxxxxxxxxxxxxxx",
                                                   "206short"] + BLOCKS),
    "block-416-repeated": (SIGNED | DOWNLOAD, [DOC, PAYLOAD, "200auto", "416"]),
    "hashes-missing": (SIGNED | DOWNLOAD, [json.dumps({"version": "2", "sha256": "a" * 64,
                       "size": 40, "blockSize": 16, "blockSha256": ["b" * 64],
                       "payload": "su/p"}), PAYLOAD, "200auto"]),
    "payload-escapes": (SIGNED | DOWNLOAD, [DOC.replace("su/payload/2.0.0", "../../x"),
                                            PAYLOAD, "200auto"]),
    "document-not-json": (SIGNED, ["not json", PAYLOAD, "200auto"]),
    "state-resume": (SIGNED | DOWNLOAD | STATE, [state(), DOC, PAYLOAD, "200auto"] + BLOCKS),
    "state-confirmed": (SIGNED | STATE, [state(state=4, verifiedBytes=46, permission=2), DOC,
                                         PAYLOAD, "204"]),
    "state-rogue": (ROGUE | STATE, [state(), DOC, PAYLOAD, "503"]),
    "state-damaged": (SIGNED | STATE, ['{"state":', DOC, PAYLOAD, "200auto"]),
    "state-odd-types": (SIGNED | STATE, [state(state="2", permission=7, source=9,
                                               verifiedBytes=-1), DOC, PAYLOAD, "503"]),
    "state-out-of-range": (SIGNED | STATE, ['{"state":9,"source":1}', DOC, PAYLOAD, "204"]),
    "state-local-failed": (SIGNED | STATE, [state(state=1, source=0, location="/nowhere"), DOC,
                                            PAYLOAD, "200auto"]),
}

for name, (flags, records) in SEEDS.items():
    with open(os.path.join(HERE, "corpus", name), "wb") as f:
        f.write(bytes([flags]) + b"\0".join(r.encode() for r in records))
