"""The lab's own authority, a certificate for 127.0.0.1 and a bundle as a device has it."""
import pathlib
import subprocess

SYSTEM_BUNDLE = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")  # package ca-certificates
KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
DAYS = ["-days", "30"]


def paths(folder):
    return {"bundle": f"{folder}/bundle.pem", "certificate": f"{folder}/server.pem", "key": f"{folder}/server.key"}


def openssl(folder, *arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)


def make(folder):
    (folder / "names").write_text("subjectAltName=IP:127.0.0.1\n")
    openssl(folder, "req", "-x509", *KEY, "-keyout", "authority.key", "-out", "authority.pem", *DAYS,
            "-subj", "/CN=Lab authority")
    openssl(folder, "req", *KEY, "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=127.0.0.1")
    openssl(folder, "x509", "-req", "-in", "server.csr", "-CA", "authority.pem", "-CAkey", "authority.key",
            "-CAcreateserial", *DAYS, "-extfile", "names", "-out", "server.pem")
    (folder / "bundle.pem").write_bytes(SYSTEM_BUNDLE.read_bytes() + (folder / "authority.pem").read_bytes())
