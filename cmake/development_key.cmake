# The public development key of the container: eight 12-character pieces.
# Builds use it unless configured with their own -DZARN_KEY_PIECES; the main
# build warns while it is in use, and the fuzz build uses it so that its seeds
# are the main build's containers.
set(ZARN_DEVELOPMENT_KEY_PIECES
    "k7Qm2Lx9Vd4R;Tz8Wc1Hn5Pb3;s6Jf0Ye4Ua7K;Nq2Xo9Bv5Ml8;Rd3Gh7Cz1Wt6;Ep4Ls8Fa2Yj0;Hu9Ic5Ok3Vn7;Mb1Tx6Dq8Sr4")
