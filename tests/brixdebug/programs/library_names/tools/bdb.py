def doubled(n):
    result = n * 2                    # stop
    return result
# bdb
