"""The emulator's own certificate authority and server certificate.

Made once with the openssl command line and kept in the data folder, so a
client trusts the CA file exactly as it trusts the real service's roots.
"""

import os
import subprocess
import tempfile

SERVER_EXT = """basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature,keyEncipherment
extendedKeyUsage=serverAuth
subjectAltName=IP:127.0.0.1,DNS:localhost
subjectKeyIdentifier=hash
authorityKeyIdentifier=keyid:always
"""


def _openssl(*args):
    result = subprocess.run(["openssl"] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if result.returncode != 0:
        raise RuntimeError("openssl %s failed: %s" % (args[0], result.stderr.decode(errors="replace")))


def ensure_certificates(data_dir):
    """Returns (ca_file, cert_file, key_file), creating them when missing."""
    tls_dir = os.path.join(data_dir, "tls")
    os.makedirs(tls_dir, exist_ok=True)
    ca_key, ca_cert = os.path.join(tls_dir, "ca.key"), os.path.join(tls_dir, "ca.pem")
    key, cert = os.path.join(tls_dir, "server.key"), os.path.join(tls_dir, "server.pem")
    if all(os.path.exists(p) for p in (ca_key, ca_cert, key, cert)):
        return ca_cert, cert, key
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    _openssl("req", "-x509", *ec, "-keyout", ca_key + ".tmp", "-out", ca_cert + ".tmp", "-days", "3650",
             "-subj", "/CN=Dropbox Emulator Test CA",
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign",
             "-addext", "subjectKeyIdentifier=hash")
    with tempfile.TemporaryDirectory(dir=tls_dir) as tmp:
        csr, ext = os.path.join(tmp, "server.csr"), os.path.join(tmp, "server.ext")
        with open(ext, "w") as f:
            f.write(SERVER_EXT)
        _openssl("req", "-new", *ec, "-keyout", key + ".tmp", "-out", csr, "-subj", "/CN=localhost")
        _openssl("x509", "-req", "-in", csr, "-CA", ca_cert + ".tmp", "-CAkey", ca_key + ".tmp",
                 "-set_serial", "0x" + os.urandom(8).hex(), "-out", cert + ".tmp", "-days", "825", "-sha256", "-extfile", ext)
    for p in (ca_key, ca_cert, key, cert):
        os.replace(p + ".tmp", p)
    return ca_cert, cert, key
