// (being written)
