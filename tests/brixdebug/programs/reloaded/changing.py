def answer(n):
    result = n + 1                    # stop
    return result


def other(n):
    return answer(n) * 2              # stop
