# SPDX-License-Identifier: Apache-2.0
"""One module per family of attacks. Importing one registers its attacks, in the order of the table."""
from families import malformed, connections, slow, floods, credentials, encryption, viewers
from families import network, processes, clocks, storage, cameras

ALL = (malformed, connections, slow, floods, credentials, encryption, viewers, network, processes,
       clocks, storage, cameras)
