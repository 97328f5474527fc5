#!/bin/sh
# Makes keys and certificates for trying things out: the directory "made", below
# the one that is given. velmora-pack carries this script.
set -eu
cd "$1"
made=$PWD/made
home=$made/gnupg
mark="TEST, do not trust"
from=20200101000000Z
# Late enough for any timestamp that is worth trying.
until=20491231235959Z

# key NAME ALGORITHM OPTION. Readers pass over what stands before PEM.
key() {
    (
        umask 077
        echo "$mark" >"$1.pem"
        openssl genpkey -algorithm "$2" -pkeyopt "$3" >>"$1.pem"
    )
}

# issue SUBJECT KEY KIND UNTIL OPTION...: prints the key's certificate.
issue() {
    openssl req -new -config ca.cnf -subj "/CN=$mark: $1" -key "$2.pem" \
        -out request
    kind=$3 end=$4
    shift 4
    openssl ca -batch -notext -config ca.cnf -md sha384 -extensions "$kind" \
        -startdate "$from" -enddate "$end" -in request "$@"
}

mkdir made
: >issued
cat >ca.cnf <<'END'
[req]
distinguished_name = empty
[empty]
[ca]
default_ca = any
[any]
database = issued
new_certs_dir = .
rand_serial = yes
policy = names
[names]
commonName = supplied
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[signer]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
END

for name in root foreign intermediate made/image-signer; do
    key "$name" EC ec_paramgen_curve:P-384
done
key made/payload-signer RSA rsa_keygen_bits:4096
{
    echo "$mark"
    openssl pkey -in made/image-signer.pem -pubout
} >made/image-signer.pub.pem
issue "root CA" root authority "$until" -selfsign -keyfile root.pem \
    >made/root-ca.pem
issue "foreign root CA" foreign authority "$until" -selfsign \
    -keyfile foreign.pem >made/foreign-root.pem
issue "intermediate CA" intermediate authority "$until" \
    -cert made/root-ca.pem -keyfile root.pem >intermediate.crt
set -- -cert intermediate.crt -keyfile intermediate.pem
issue "payload signer" made/payload-signer signer "$until" "$@" \
    >made/chain.pem
issue "expired payload signer" made/payload-signer signer 20201231235959Z \
    "$@" >made/expired-chain.pem
for chain in chain expired-chain; do
    cat intermediate.crt >>made/$chain.pem
done
openssl verify -trusted made/root-ca.pem -untrusted intermediate.crt \
    made/chain.pem

mkdir -m 700 "$home"
# The agent removes its sockets by path, so it must end before the home is
# renamed.
end_agent() {
    gpgconf --homedir "$home" --kill all
    for _ in $(seq 250); do
        [ -e "$home/S.gpg-agent" ] || break
        sleep 0.02
    done
}
trap end_agent EXIT
set -- --homedir "$home" --batch --no-tty
gpg "$@" --faked-system-time '20200101T000000!' --passphrase '' \
    --quick-generate-key "$mark (velmora-pack) <test@velmora.invalid>" \
    ed25519 sign never
gpg "$@" --armor --export >made/keyring.asc
gpg "$@" --with-colons --list-keys |
    awk -F: '$1 == "fpr" { print $10; exit }' >made/fingerprint
