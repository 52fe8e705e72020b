#!/usr/bin/python3
"""Verifies the demo's registration and authentication as a relying party would, with an
implementation of its own (CBOR, authenticator data, COSE key, packed self attestation, ES256)
on Python's cryptography package. Exit status 0 when both ceremonies verify."""
import base64
import hashlib
import json
import struct
import sys

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec


def b64url(text):
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def cbor(data, at=0):
    """Decodes one CBOR item; returns (value, next offset)."""
    head = data[at]
    major, info = head >> 5, head & 31
    at += 1
    if info < 24:
        value = info
    elif info in (24, 25, 26, 27):
        size = 1 << (info - 24)
        value = int.from_bytes(data[at:at + size], "big")
        at += size
    else:
        raise ValueError("indefinite or reserved CBOR length")
    if major == 0:
        return value, at
    if major == 1:
        return -1 - value, at
    if major in (2, 3):
        raw = data[at:at + value]
        return (raw if major == 2 else raw.decode()), at + value
    if major == 4:
        items = []
        for _ in range(value):
            item, at = cbor(data, at)
            items.append(item)
        return items, at
    if major == 5:
        result = {}
        for _ in range(value):
            key, at = cbor(data, at)
            result[key], at = cbor(data, at)
        return result, at
    raise ValueError("unsupported CBOR major type %d" % major)


def check(condition, what):
    if not condition:
        print("FAIL:", what)
        sys.exit(1)
    print("ok:", what)


def main(path):
    doc = json.load(open(path))
    rp_id, origin = doc["rpId"], doc["origin"]
    rp_hash = hashlib.sha256(rp_id.encode()).digest()

    reg = doc["registration"]
    client = b64url(reg["response"]["clientDataJSON"])
    client_json = json.loads(client)
    check(client_json["type"] == "webauthn.create" and client_json["origin"] == origin, "registration client data")
    obj, _ = cbor(b64url(reg["response"]["attestationObject"]))
    auth = obj["authData"]
    check(auth[:32] == rp_hash, "registration rpIdHash is SHA-256 of the RP id")
    flags = auth[32]
    check(flags & 0x01 and flags & 0x40, "user present and attested credential data flags")
    id_length = struct.unpack(">H", auth[53:55])[0]
    credential_id = auth[55:55 + id_length]
    check(credential_id == b64url(reg["rawId"]), "credential id in authenticator data equals rawId")
    cose, _ = cbor(auth, 55 + id_length)
    check(cose[1] == 2 and cose[3] == -7 and cose[-1] == 1, "COSE key is EC2, ES256, P-256")
    key = ec.EllipticCurvePublicNumbers(int.from_bytes(cose[-2], "big"), int.from_bytes(cose[-3], "big"),
                                        ec.SECP256R1()).public_key()
    client_hash = hashlib.sha256(client).digest()
    if obj["fmt"] == "packed":
        check(obj["attStmt"]["alg"] == -7, "packed self attestation with ES256")
        key.verify(obj["attStmt"]["sig"], auth + client_hash, ec.ECDSA(hashes.SHA256()))
        check(True, "attestation signature verifies with the credential key")
    else:
        check(obj["fmt"] == "none" and obj["attStmt"] == {}, "none attestation")

    login = doc["authentication"]
    check(login["rawId"] == reg["rawId"], "authentication uses the registered credential")
    client = b64url(login["response"]["clientDataJSON"])
    client_json = json.loads(client)
    check(client_json["type"] == "webauthn.get" and client_json["origin"] == origin, "authentication client data")
    auth = b64url(login["response"]["authenticatorData"])
    check(auth[:32] == rp_hash and auth[32] & 0x01, "authentication rpIdHash and user presence")
    check(struct.unpack(">I", auth[33:37])[0] > 0, "signature counter counts")
    key.verify(b64url(login["response"]["signature"]), auth + hashlib.sha256(client).digest(),
               ec.ECDSA(hashes.SHA256()))
    check(True, "assertion signature verifies with the registered key")


if __name__ == "__main__":
    main(sys.argv[1])
