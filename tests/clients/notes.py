def of(profile, column, check):
    return []
