# For the platform's own layer, in recipes-velmora/velmora/: where the sources
# are, which revision is built, and who brings libquorlin.so.9.
VELMORA_SRC_URI = "git://git.example.com/velmora.git;protocol=ssh;branch=main"
SRCREV = "0000000000000000000000000000000000000000"
VELMORA_CHAIN_VERIFIER = "quorlin"
