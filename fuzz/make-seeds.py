#!/usr/bin/env python3
"""Writes the seed corpora of the fuzzers into corpus/<fuzzer>/ (run from anywhere; the files
are committed, so this is only needed to change them). Seeds are small, well-formed inputs that
reach each fuzzer's interesting paths; the fuzzers mutate from there."""
import json
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CONFIG = os.path.join(HERE, "..", "config")


def write(fuzzer, name, data):
    folder = os.path.join(HERE, "corpus", fuzzer)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def config_documents():
    docs = {}
    for sub in ("packages", "native"):
        folder = os.path.join(CONFIG, sub)
        for name in sorted(os.listdir(folder)):
            if name.endswith(".json") and name != "users.json":
                with open(os.path.join(folder, name)) as f:
                    docs[sub + "-" + name[:-5]] = json.load(f)
    return docs


def entry(key, type_, default, scope="system", writable=True, owner=True):
    return {"key": key, "type": type_, "default": default, "scope": scope,
            "hasWritePermission": writable, "isOwner": owner}


def schema_seeds():
    docs = config_documents()
    for name, doc in docs.items():
        write("schema_document_fuzzer", name, json.dumps(doc))
    odd = {"uid": "abc", "packageName": "p", "contents": [
        {"key": "k", "type": "integer", "default": 5},
        {"key": "b", "type": "boolean", "default": True, "scope": "User"},
        {"key": "u", "type": "unknown", "default": "x"},
        {"key": "n", "default": "1"},
        {"key": ["array"], "type": "string", "default": "x"}]}
    write("schema_document_fuzzer", "odd-kinds", json.dumps(odd))
    write("schema_document_fuzzer", "no-package", json.dumps({"uid": 1, "contents": []}))
    write("schema_document_fuzzer", "uid-minus-one", json.dumps({"uid": -1, "packageName": "p"}))
    write("schema_document_fuzzer", "list", json.dumps(
        {"add": True, "restart": True, "schemas": [docs["packages-com.example.weather"]]}))
    # Nested past the reader's bound (64 levels for a document, 66 for a list) and past
    # JsonCpp's own default limit of 1000: refused, never thrown.
    deep = {"uid": 1, "packageName": "p", "contents": "[" * 2000 + "]" * 2000}
    write("schema_document_fuzzer", "deep-nesting",
          json.dumps(deep).replace('"[', "[").replace(']"', "]"))

    pkgs = [d for n, d in docs.items() if n.startswith("packages-")]
    write("schema_list_fuzzer", "install-all",
          json.dumps({"add": True, "restart": True, "schemas": pkgs}))
    write("schema_list_fuzzer", "install-one", json.dumps({"add": True, "schemas": pkgs[:1]}))
    write("schema_list_fuzzer", "remove-one", json.dumps({"add": False, "schemas": pkgs[:1]}))
    write("schema_list_fuzzer", "restart-empty", json.dumps({"add": True, "restart": True,
                                                              "schemas": []}))
    write("schema_list_fuzzer", "replace-base", json.dumps({"add": True, "schemas": [{
        "uid": 10123, "packageName": "com.example.base", "contents": [
            entry("base_integer", "string", "x", "user"),
            entry("base_new", "double", "0.25", "crossUser", False, False)]}]}))
    write("schema_list_fuzzer", "other-owner", json.dumps({"add": True, "schemas": [{
        "uid": 10200, "packageName": "com.example.other", "contents": [
            entry("base_integer", "integer", "9")]}]}))
    write("schema_list_fuzzer", "remove-base", json.dumps({"add": False, "schemas": [{
        "uid": 10123, "packageName": "com.example.base"}]}))
    write("schema_list_fuzzer", "empty-object", "{}")
    write("schema_list_fuzzer", "not-json", "{\"add\": tru")
    write("schema_list_fuzzer", "deep-nesting", '{"add": true, "schemas": ' + "[" * 2000)


def service_seeds():
    # Input: code byte, caller index, flags, key index, then raw parcel bytes.
    # Callers: 0 root, 1 system, 2 privileged, 3 declaring app, 4 declaring app in user 10,
    # 5 app that declares nothing, 6 uid 100000.
    # Flags: 1 token, 2 wrong token, 4 listener, 8 key, 16 one-way.
    # Keys: 0 sys_integer, 1 sys_string, 2 cross_long, 3 user_boolean, 4 ro_float, 5 sys_double.
    key_of_method = {
        1: 0, 2: 5, 3: 1, 4: 2, 5: 3, 6: 4, 7: 0, 8: 5, 9: 1, 10: 2, 11: 3, 12: 4,
    }
    def value_bytes(method):
        kind = (method - 1) % 6  # integer, double, string, long, boolean, float
        if kind == 0:
            return struct.pack("<i", 42)
        if kind == 1:
            return struct.pack("<d", 2.5)
        if kind == 2:
            text = "hello".encode("utf-16-le") + b"\0\0"
            body = struct.pack("<i", 5) + text
            return body + b"\0" * ((4 - len(body) % 4) % 4)
        if kind == 3:
            return struct.pack("<q", 1 << 40)
        if kind == 4:
            return struct.pack("<i", 1)
        return struct.pack("<f", 0.75)

    for code in range(1, 42):
        for caller in (0, 3, 4, 5):
            base = (code - 1) % 12 + 1
            key = key_of_method.get(base, 0)
            if code <= 38:
                flags = 1 | 8
                body = b""
                setter = base <= 6
                if setter:
                    body += value_bytes(base)
                if 25 < code <= 37:
                    body += struct.pack("<i", 10)  # user id
            elif code == 39:
                flags = 1 | 4 | 8
                body = struct.pack("<i", 1)
            elif code == 40:
                flags = 1 | 4
                body = b""
            else:
                flags = 1
                body = string16("start-tracing") + struct.pack("<i", 0)
            write("service_transact_fuzzer", "code%02d-caller%d" % (code, caller),
                  bytes([code - 1, caller, flags, key]) + body)
    write("service_transact_fuzzer", "ping", bytes([246, 0, 0, 0]))
    write("service_transact_fuzzer", "interface", bytes([247, 0, 0, 0]))
    write("service_transact_fuzzer", "no-token", bytes([0, 3, 8, 0]) + struct.pack("<i", 1))


TRNS, RPLY, RLSE, TRNM = 0x54524E53, 0x52504C59, 0x524C5345, 0x54524E4D
SENDER, RECEIVER, FD = 0x73622A85, 0x73682A85, 0x66642A85


def frame(kind, body):
    return struct.pack("<II", kind, len(body)) + body


def transaction(txid, code, data=b"", offsets=(), fds=0, flags=0, target=0, context=0):
    body = struct.pack("<QQQIIIIII", txid, target, context, code, flags, len(data),
                       len(offsets), fds, 0)
    return frame(TRNS, body + data + b"".join(struct.pack("<I", o) for o in offsets))


def record(kind, value):
    return struct.pack("<IIQQ", kind, 0x17F, value, 0)


def string16(text):
    units = text.encode("utf-16-le") + b"\0\0"
    body = struct.pack("<i", len(text)) + units
    return body + b"\0" * ((4 - len(body) % 4) % 4)


def binder_seeds():
    ping = transaction(1, 0x5F504E47)
    write("binder_frame_fuzzer", "ping", b"\0" + ping)
    write("binder_frame_fuzzer", "interface", b"\0" + transaction(2, 0x5F4E5446))
    call = struct.pack("<i", 7) + string16("text") + struct.pack("<i", 3) + b"abc\0"
    offset = len(call)
    call += record(SENDER, 1) + struct.pack("<i", 0x0C)
    write("binder_frame_fuzzer", "objects", b"\0" + transaction(3, 1, call, [offset]) + ping)
    write("binder_frame_fuzzer", "oneway-objects",
          b"\0" + transaction(0, 1, call, [offset], flags=1) + transaction(0, 1, call, [offset],
                                                                            flags=1))
    fd_call = record(FD, 0)
    write("binder_frame_fuzzer", "descriptor", b"\1" + transaction(4, 2, fd_call, [0], fds=1))
    dump = record(FD, 0) + struct.pack("<i", 1) + string16("-a")
    write("binder_frame_fuzzer", "dump", b"\1" + transaction(5, 0x5F444D50, dump, [0], fds=1))
    write("binder_frame_fuzzer", "big-reply",
          b"\0" + transaction(6, 3, struct.pack("<i", 2 << 20)) + ping)
    returned = struct.pack("<i", 0) + string16("") + struct.pack("<i", -1) + record(RECEIVER, 1) + \
        struct.pack("<i", 0x0C)
    write("binder_frame_fuzzer", "object-returned",
          b"\0" + transaction(7, 1, call, [offset]) + transaction(8, 1, returned, [16]))
    release = frame(RLSE, struct.pack("<QII", 1, 1, 0))
    write("binder_frame_fuzzer", "release", b"\0" + transaction(9, 1, call, [offset]) + release)
    reply = frame(RPLY, struct.pack("<QiIII", 1, 0, 0, 0, 0))
    write("binder_frame_fuzzer", "stray-reply", b"\0" + reply)
    # Out of line: the parcel data and offsets are the memfd's content, the input's tail.
    payload = call + struct.pack("<I", offset)
    fixed = struct.pack("<QQQIIIIII", 10, 0, 0, 1, 0, len(call), 1, 0, 0)
    write("binder_frame_fuzzer", "out-of-line",
          bytes([4, len(payload) // 4]) + frame(TRNM, fixed) + ping + payload)


if __name__ == "__main__":
    schema_seeds()
    service_seeds()
    binder_seeds()
