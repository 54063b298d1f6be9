"""Where workers are: in this thread, in threads, in processes, on the nodes of a cluster."""
