#!/usr/bin/env python3
"""Checks in through libpalomir's C interface with ctypes and prints the answer.

It starts nothing itself: point it at a running backend, for instance
palomir-sandbox, which prints its base URL and writes its CA (ca.pem) and the
pinned certificate (localhost.crt) into its bundle directory:

    python3 checkin.py --library build/debug/src/libpalomir.so \\
        --base-url https://localhost:PORT/api --ca DATA/bundle/ca.pem --bundle-dir DATA/bundle

The library may also be named by the PALOMIR_LIBRARY environment variable.
"""
import argparse
import ctypes
import json
import os
import sys

CHECKIN_COMPLETION = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p)
PREDICATE = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_void_p)


def load(path):
    lib = ctypes.CDLL(path)
    err = ctypes.POINTER(ctypes.c_void_p)
    signatures = {
        "pl_set_host_info": (ctypes.c_bool, [ctypes.c_char_p] * 4 + [err]),
        "pl_set_backend": (ctypes.c_bool, [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, err]),
        "pl_set_app_credentials": (ctypes.c_bool, [ctypes.c_char_p, ctypes.c_char_p, err]),
        "pl_set_app_info_metadata_json": (ctypes.c_bool, [ctypes.c_char_p, err]),
        "pl_queue_main": (ctypes.c_void_p, []),
        "pl_checkin": (ctypes.c_bool, [ctypes.c_void_p, CHECKIN_COMPLETION, ctypes.c_void_p, err]),
        "pl_main_queue_run_until": (ctypes.c_bool, [PREDICATE, ctypes.c_void_p, ctypes.c_int64]),
        "pl_error_description": (ctypes.c_char_p, [ctypes.c_void_p]),
        "pl_error_release": (None, [ctypes.c_void_p]),
        "pl_configuration_version": (ctypes.c_char_p, [ctypes.c_void_p]),
        "pl_configuration_lockdown": (ctypes.c_int, [ctypes.c_void_p]),
        "pl_configuration_lockdown_title": (ctypes.c_char_p, [ctypes.c_void_p]),
        "pl_configuration_note_count": (ctypes.c_size_t, [ctypes.c_void_p]),
        "pl_configuration_note_title": (ctypes.c_char_p, [ctypes.c_void_p, ctypes.c_size_t]),
        "pl_configuration_copy_json": (ctypes.c_void_p, [ctypes.c_void_p]),
        "pl_string_free": (None, [ctypes.c_void_p]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


def text(value):
    return value.decode("utf-8") if value is not None else None


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--library", default=os.environ.get("PALOMIR_LIBRARY"), help="path of libpalomir.so")
    parser.add_argument("--base-url", required=True)
    parser.add_argument("--ca", help="PEM file of a CA to trust")
    parser.add_argument("--bundle-dir", help="directory holding <host>.crt, the pinned certificate")
    parser.add_argument("--token", default="sandbox-token")
    parser.add_argument("--secret", default="sandbox-secret")
    args = parser.parse_args()
    if not args.library:
        parser.error("give --library or set PALOMIR_LIBRARY")

    lib = load(args.library)
    error = ctypes.c_void_p()

    def fail(what):
        print(f"{what}: {text(lib.pl_error_description(error))}", file=sys.stderr)
        lib.pl_error_release(error)
        return 1

    encode = lambda value: value.encode("utf-8") if value is not None else None
    # An interpreter has no Info.json of its own: describe the host first.
    if not lib.pl_set_host_info(b"io.palomir.examples.python", b"1.0", b"1", b"checkin.py", ctypes.byref(error)):
        return fail("host info")
    if not lib.pl_set_backend(encode(args.base_url), encode(args.ca), encode(args.bundle_dir), ctypes.byref(error)):
        return fail("backend")
    if not lib.pl_set_app_credentials(encode(args.token), encode(args.secret), ctypes.byref(error)):
        return fail("credentials")
    metadata = json.dumps({"host": "checkin.py", "python": sys.version.split()[0]})
    if not lib.pl_set_app_info_metadata_json(metadata.encode("utf-8"), ctypes.byref(error)):
        return fail("metadata")

    outcome = {}

    # Runs on the main queue, inside pl_main_queue_run_until; the handles are
    # borrowed, so everything needed is read here.
    @CHECKIN_COMPLETION
    def checked_in(configuration, failure, _context):
        if failure:
            outcome["error"] = text(lib.pl_error_description(failure))
            return
        notes = [text(lib.pl_configuration_note_title(configuration, i))
                 for i in range(lib.pl_configuration_note_count(configuration))]
        raw = lib.pl_configuration_copy_json(configuration)
        document = json.loads(ctypes.string_at(raw).decode("utf-8"))
        lib.pl_string_free(raw)
        outcome["result"] = {
            "version": text(lib.pl_configuration_version(configuration)),
            "lockdown": lib.pl_configuration_lockdown(configuration),
            "lockdown title": text(lib.pl_configuration_lockdown_title(configuration)),
            "notes": notes,
            "theme keys": sorted(document["theme"]),
        }

    @PREDICATE
    def answered(_context):
        return bool(outcome)

    if not lib.pl_checkin(lib.pl_queue_main(), checked_in, None, ctypes.byref(error)):
        return fail("check-in")
    if not lib.pl_main_queue_run_until(answered, None, 30000):
        print("no answer within 30 s", file=sys.stderr)
        return 1
    if "error" in outcome:
        print(f"check-in failed: {outcome['error']}", file=sys.stderr)
        return 1
    for key, value in outcome["result"].items():
        print(f"{key}: {value}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
