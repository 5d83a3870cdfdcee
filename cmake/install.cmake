# What an installed tree holds.
