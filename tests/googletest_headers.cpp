// Nothing but the headers that every program of tests has in common, compiled once.
