# For the platform's own layer, in recipes-velmora/velmora/: where the sources
# are, and who brings libquorlin.so.9. SRCREV here builds another revision than
# the recipe's.
VELMORA_SRC_URI = "git://git.example.com/velmora.git;protocol=ssh;branch=main"
VELMORA_CHAIN_VERIFIER = "quorlin"
