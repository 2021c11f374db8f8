#!/usr/bin/env python3
"""Starts palomir-sandbox, runs a client command against it and checks its output.

usage: run_against_sandbox.py SANDBOX SCENARIO [--expect TEXT]... -- COMMAND...
In COMMAND, {base_url}, {ca_file}, {bundle_dir}, {token} and {secret} are replaced with the
running sandbox's values, and {trust_store} with a key store holding its CA (password "sandbox")
for a JVM; PALOMIR_SANDBOX_ADMIN_TOKEN in its environment holds the token of the sandbox's admin
routes. Passes when the command exits 0 and printed every expected text.
"""
import os
import signal
import subprocess
import sys
import tempfile


def main(argv):
    split = argv.index("--")
    (sandbox, scenario, *own), command = argv[:split], argv[split + 1:]
    expected = [own[i + 1] for i, arg in enumerate(own) if arg == "--expect"]
    with tempfile.TemporaryDirectory(prefix="palomir-example-") as directory:
        server = subprocess.Popen([sandbox, "--quiet", "--scenario", scenario, "--data-dir", f"{directory}/data"],
                                  stdout=subprocess.PIPE, text=True)
        try:
            # The sandbox prints "key: value" lines on start, the CA file last.
            values = {"token": "sandbox-token", "secret": "sandbox-secret", "admin token": ""}
            for line in server.stdout:
                key, _, value = line.strip().partition(": ")
                values[key] = value.strip()
                if key == "CA":
                    break
            if "port" not in values:
                print("palomir-sandbox did not start", file=sys.stderr)
                return 1
            values.update(base_url=f"https://localhost:{values['port']}/api", ca_file=values["CA"],
                          bundle_dir=os.path.dirname(values["CA"]), trust_store=f"{directory}/trust.p12")
            if any("{trust_store}" in part for part in command):
                subprocess.run(["keytool", "-importcert", "-noprompt", "-alias", "sandbox", "-file", values["CA"],
                                "-keystore", values["trust_store"], "-storepass", "sandbox"], check=True,
                               capture_output=True)
            environment = dict(os.environ, XDG_CACHE_HOME=f"{directory}/caches",
                               PALOMIR_SANDBOX_ADMIN_TOKEN=values["admin token"])
            result = subprocess.run([part.format(**values) for part in command], capture_output=True, text=True,
                                    timeout=90, env=environment)
            sys.stdout.write(result.stdout)
            sys.stderr.write(result.stderr)
            missing = [text for text in expected if text not in result.stdout]
            for text in missing:
                print(f"missing from the output: {text!r}", file=sys.stderr)
            if result.returncode != 0:
                print(f"client exited with {result.returncode}", file=sys.stderr)
            return 1 if missing or result.returncode != 0 else 0
        finally:
            server.send_signal(signal.SIGTERM)
            server.wait(timeout=30)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
