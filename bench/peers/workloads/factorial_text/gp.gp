print(30000!);
